// DecoderAV with JPEG 2000 pass-through off, so that every payload goes through the box
// search before FFmpeg. Option bits: 0 jpeg2000codestream, 1 jpeg2000display_atoms,
// 2..3 the FormatIn of the DecoderAV (JPEG 2000, Motion JPEG, H.264, MPEG-4).
#include "fuzz/fuzz_input.h"
#include "fuzz/picture_check.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_preferences.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    orvo::fuzz::silenceQtDebug();
    const auto in = orvo::fuzz::split(data, size);
    static const orvo::FormatIn formats[] = {orvo::FormatIn_JPEG2000, orvo::FormatIn_MJPEG, orvo::FormatIn_H264,
                                             orvo::FormatIn_MPEG4};
    auto* prefs = orvo::DecoderPreferences::instance();
    prefs->setJpeg2000passthrough(false);
    prefs->setJpeg2000codestream((in.options & 1) != 0);
    prefs->setJpeg2000display_atoms((in.options & 2) != 0);
    orvo::DecoderAV decoder(formats[(in.options >> 2) & 3]);
    for (const QByteArray& chunk : in.chunks) {
        std::vector<unsigned char> payload(chunk.begin(), chunk.end());
        orvo::VideoFrame frame;
        if (decoder.decode(payload.empty() ? nullptr : payload.data(), int(payload.size()), frame, false) &&
            frame.isValid())
            orvo::fuzz::readWholePicture(frame);
    }
    return 0;
}
