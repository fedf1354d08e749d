#include "orvo/single_threaded_decoder.h"

#include <new>

namespace orvo {

SingleThreadedDecoderImpl::SingleThreadedDecoderImpl(QObject* parent) : AbstractSignaledAsyncDecoder(parent) {}

SingleThreadedDecoderImpl::~SingleThreadedDecoderImpl() = default;

int SingleThreadedDecoderImpl::decode(const Image& image)
{
    if (!decoder_.init(image.type(), 0)) {
        decodingError(DecoderError(1));
        return 0;
    }
    VideoFrame frame;
    quint32 code = 0;
    try {
        if (!decoder_.decode(image.payloadData(), int(image.payloadSize()), frame, image.iframe()))
            code = 1;
    } catch (const std::bad_alloc&) {
        code = 3;
    } catch (...) {
        code = 4;
    }
    if (code != 0) {
        decodingError(DecoderError(code));
        return 0;
    }
    frame.setId(image.id());
    frame.attachImageData(image, image.payloadSize());
    frameFinished(frame);
    return 1;
}

SingleThreadedDecoder::SingleThreadedDecoder() : AsyncDecoder(new SingleThreadedDecoderImpl(nullptr))
{
    // Frames reach this handle once, through the base connection to slotFrameFinished;
    // slotFinished is not connected a second time.
}

SingleThreadedDecoder::~SingleThreadedDecoder() = default;

void SingleThreadedDecoder::slotFinished(const orvo::VideoFrame& frame)
{
    frameFinished(frame);
}

}  // namespace orvo
