#pragma once
// AsyncDecoder: the handle clients hold over one asynchronous decoder implementation.
//
// The handle owns the implementation through a QSharedPointer, forwards decode/isBusy/
// reset to it and re-emits its decoded frames and errors as its own frameDecoded and error.
// A client may connect to either the handle or the implementation (getInterface()): each
// emits every frame and every error once.
// A handle and its implementation belong to the thread that created them.
#include "orvo/async_decoder_interfaces.h"

#include <QSharedPointer>
#include <QWeakPointer>

namespace orvo {

// Weak form of a handle's reference: queued work refers to decoders by it, so that it
// never keeps a decoder alive.
using WeakAsyncDecoder = QWeakPointer<SignaledAsyncDecoderInterface>;

class ORVO_EXPORT AsyncDecoder : public AbstractSignaledAsyncDecoder {
    Q_OBJECT
public:
    explicit AsyncDecoder(QObject* parent);  // a null handle
    // Takes ownership of `impl` (may be null).
    explicit AsyncDecoder(SignaledAsyncDecoderInterface* impl);
    ~AsyncDecoder() override;

    // The handle must not be null.
    int decode(const Image& image) override;
    bool isBusy() override;
    void reset() override;

    bool isNull() const { return interface_.isNull(); }
    SignaledAsyncDecoderInterface* getInterface() const { return interface_.data(); }
    QSharedPointer<SignaledAsyncDecoderInterface> qSharedPointerInterface() const { return interface_; }
    // Re-points the handle at the decoder `weak` refers to (null when it expired).
    void setWeakAsyncDecoder(const WeakAsyncDecoder& weak);

    void frameFinished(const VideoFrame& frame) override;
    void decodingError(const DecoderError& error) override;

protected:
    void myconnect();

protected slots:
    void slotFrameFinished(const orvo::VideoFrame& vf);

private:
    QSharedPointer<SignaledAsyncDecoderInterface> interface_;
};

}  // namespace orvo
