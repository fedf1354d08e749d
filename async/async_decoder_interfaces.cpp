#include "orvo/async_decoder_interfaces.h"

namespace orvo {

DecoderInterfaceSignals::DecoderInterfaceSignals(QObject* parent) : QObject(parent)
{
    registerAsyncDecoderMetaTypes();
}

DecoderInterfaceSignals::~DecoderInterfaceSignals() = default;

void AbstractSignaledAsyncDecoder::frameFinished(const VideoFrame& frame)
{
    emit frameDecoded(frame);
}

void AbstractSignaledAsyncDecoder::decodingError(const DecoderError& error)
{
    emit this->error(error);
}

}  // namespace orvo
