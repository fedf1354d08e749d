#pragma once
// Feeds the chunks of one fuzz input, in a row, as images to one Decoder with one format
// code, and checks that each image is answered by its pictures (several when it holds
// several access units) or by one failure, never both, and only images that were given.
// Option bit 0x80: the images are I-frames; 0x40: each ends its access unit; 0x20:
// damaged pictures wait for the next key frame; 0x10: pictures at a small output size (its
// bits 0x0f pick it), switched on and off from image to image with 0x08.
#include "fuzz/fuzz_input.h"
#include "fuzz/picture_check.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

namespace orvo::fuzz {

class AnswerCount {
public:
    // A picture naming `id` (0: a picture whose image is unknown), or a failure.
    void add(quint64 id, quint64 fed, bool failure = false)
    {
        if (id == 0 && !failure)
            return;
        int& pictures = pictures_[id];
        int& failures = failures_[id];
        (failure ? failures : pictures) += 1;
        if (id == 0 || id > fed || failures > 1 || (failures > 0 && pictures > 0)) {
            std::fprintf(stderr, "image %llu: %d pictures and %d failures (%llu given)\n",
                         static_cast<unsigned long long>(id), pictures, failures, static_cast<unsigned long long>(fed));
            std::abort();
        }
    }

private:
    std::map<quint64, int> pictures_, failures_;
};

// Decodes one chunk through the plain payload call and reads the whole picture that comes out.
inline void decodeChunk(Decoder& decoder, const QByteArray& chunk, unsigned char type, int param, bool iframe)
{
    // The decoder may repair its payload in place: give it a private, exactly sized copy.
    std::vector<unsigned char> payload(chunk.begin(), chunk.end());
    orvo::VideoFrame frame;
    if (decoder.decode(type, payload.empty() ? nullptr : payload.data(), int(payload.size()), frame, param, iframe) &&
        frame.isValid())
        readWholePicture(frame);
}

inline void takeAnswers(Decoder& decoder, AnswerCount& answers, quint64 fed)
{
    orvo::VideoFrame frame;
    while (decoder.takePicture(frame)) {
        answers.add(frame.id(), fed);
        if (frame.isValid())
            readWholePicture(frame);
    }
    for (const Decoder::EndedImage& ended : decoder.takeImagesWithoutPicture())
        answers.add(ended.image.id(), fed, true);
}

inline void decodeSequence(const Input& in, unsigned char type, int param)
{
    silenceQtDebug();
    DecoderPreferences::instance()->setDamagedPictures((in.options & 0x20) ? DamagedPictures::WaitForKeyFrame
                                                                            : DamagedPictures::Show);
    Decoder decoder;
    AnswerCount answers;
    quint64 fed = 0;
    const QSize small(1 + (in.options & 0x0f) * 24, 1 + (in.options & 0x07) * 20);
    if (in.options & 0x10)
        decoder.setMaxOutputSize(small);
    for (const QByteArray& chunk : in.chunks) {
        if ((in.options & 0x18) == 0x18)
            decoder.setMaxOutputSize(fed % 2 ? small : QSize());
        // The decoder may repair its payload in place: each image has a private copy.
        orvo::Image image(type, QByteArray(chunk.constData(), chunk.size()), ++fed, qint64(fed) * 40,
                          (in.options & 0x80) != 0);
        image.setAccessUnitEnd((in.options & 0x40) != 0);
        orvo::VideoFrame frame;
        const Decoder::ImageResult result = decoder.decodeImage(image, frame, param);
        if (result == Decoder::ImageResult::Picture) {
            answers.add(frame.id(), fed);
            if (frame.isValid())
                readWholePicture(frame);
        } else if (result == Decoder::ImageResult::Failed) {
            answers.add(image.id(), fed, true);
        }
        takeAnswers(decoder, answers, fed);
    }
    orvo::VideoFrame frame;
    while (decoder.drain(frame)) {
        answers.add(frame.id(), fed);
        if (frame.isValid())
            readWholePicture(frame);
        frame = orvo::VideoFrame();
    }
    takeAnswers(decoder, answers, fed);
}

}  // namespace orvo::fuzz
