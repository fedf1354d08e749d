#include "async/image_decoder.h"
#include "decoders/exception_error_code.h"
#include "orvo/single_threaded_decoder.h"

#include <new>

namespace orvo {

SingleThreadedDecoderImpl::SingleThreadedDecoderImpl(QObject* parent) : AbstractSignaledAsyncDecoder(parent) {}

SingleThreadedDecoderImpl::~SingleThreadedDecoderImpl() = default;

int SingleThreadedDecoderImpl::decode(const Image& image)
{
    VideoFrame frame;
    Decoder::ImageResult result = Decoder::ImageResult::Failed;
    quint32 code = 0;
    QList<VideoFrame> more;
    QList<DecoderError> ended;
    try {
        result = decoder_.decodeImage(image, frame);
        if (result == Decoder::ImageResult::Failed)
            code = 1;
        VideoFrame next;
        while (decoder_.takePicture(next)) {
            more.append(next);
            next = VideoFrame();
        }
        ended = takeEndedAsErrors(decoder_);
    } catch (...) {
        code = currentExceptionErrorCode();
    }
    for (const DecoderError& e : qAsConst(ended))
        decodingError(e);
    if (code != 0) {
        decodingError(DecoderError(code, image.id(), code == 1 ? decoder_.failureReason() : QString()));
        return 0;
    }
    // A picture carries the identity of its own image, maybe an earlier one; an image
    // whose picture is held back (or that carries none) is taken without a frame.
    if (result == Decoder::ImageResult::Picture)
        frameFinished(frame);
    for (const VideoFrame& f : qAsConst(more))
        frameFinished(f);
    return 1;
}

void SingleThreadedDecoderImpl::drain()
{
    VideoFrame frame;
    try {
        while (decoder_.drain(frame)) {
            frameFinished(frame);
            frame = VideoFrame();
        }
        for (const DecoderError& e : takeEndedAsErrors(decoder_))
            decodingError(e);
    } catch (...) {
        // No exception leaves the library.
    }
}

SingleThreadedDecoder::SingleThreadedDecoder() : AsyncDecoder(new SingleThreadedDecoderImpl(nullptr))
{
    // Frames reach this handle once, through the base connection to slotFrameFinished;
    // slotFinished is not connected a second time.
}

SingleThreadedDecoder::~SingleThreadedDecoder() = default;

void SingleThreadedDecoder::drain()
{
    if (auto* impl = static_cast<SingleThreadedDecoderImpl*>(getInterface()))
        impl->drain();
}

void SingleThreadedDecoder::slotFinished(const orvo::VideoFrame& frame)
{
    frameFinished(frame);
}

}  // namespace orvo
