#include "orvo/async_decoder.h"

namespace orvo {

AsyncDecoder::AsyncDecoder(QObject* parent) : AbstractSignaledAsyncDecoder(parent) {}

AsyncDecoder::AsyncDecoder(SignaledAsyncDecoderInterface* impl) : AbstractSignaledAsyncDecoder(nullptr)
{
    // QSharedPointer over a QObject also tracks it, so weak handles made from the
    // object stay consistent with this owner.
    if (impl)
        interface_ = QSharedPointer<SignaledAsyncDecoderInterface>(impl);
    myconnect();
}

AsyncDecoder::~AsyncDecoder() = default;

int AsyncDecoder::decode(const Image& image)
{
    return interface_ ? interface_->decode(image) : 0;
}

bool AsyncDecoder::isBusy()
{
    return interface_ && interface_->isBusy();
}

void AsyncDecoder::reset()
{
    if (interface_)
        interface_->reset();
}

void AsyncDecoder::setWeakAsyncDecoder(const WeakAsyncDecoder& weak)
{
    if (interface_)
        QObject::disconnect(interface_.data(), nullptr, this, nullptr);
    interface_ = weak.toStrongRef();
    myconnect();
}

void AsyncDecoder::myconnect()
{
    if (!interface_)
        return;
    connect(interface_.data(), &DecoderInterfaceSignals::frameDecoded, this, &AsyncDecoder::slotFrameFinished);
    // Errors reach the handle too: a client connecting to the signal it sees on the handle
    // must not wait in vain. Clients connected to the implementation still get each once.
    connect(interface_.data(), &DecoderInterfaceSignals::error, this,
            [this](const DecoderError& error) { decodingError(error); });
    connect(interface_.data(), &DecoderInterfaceSignals::decodingPathChanged, this,
            &DecoderInterfaceSignals::decodingPathChanged);
}

void AsyncDecoder::slotFrameFinished(const orvo::VideoFrame& vf)
{
    frameFinished(vf);
}

void AsyncDecoder::frameFinished(const VideoFrame& frame)
{
    emit frameDecoded(frame);
}

void AsyncDecoder::decodingError(const DecoderError& error)
{
    emit this->error(error);
}

}  // namespace orvo
