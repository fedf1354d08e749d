#pragma once
// Decoding on the caller's thread: decode() runs the image's format decoder at once and
// emits frameDecoded (or error on the implementation) before it returns.
#include "orvo/async_decoder.h"
#include "orvo/decoder.h"

namespace orvo {

class ORVO_EXPORT SingleThreadedDecoderImpl : public AbstractSignaledAsyncDecoder {
public:
    explicit SingleThreadedDecoderImpl(QObject* parent = nullptr);
    ~SingleThreadedDecoderImpl() override;

    // 1 when a frame was emitted, 0 (with error code 1) when the image failed.
    int decode(const Image& image) override;
    bool isBusy() override { return false; }
    void reset() override {}

private:
    Decoder decoder_;
};

class ORVO_EXPORT SingleThreadedDecoder : public AsyncDecoder {
    Q_OBJECT
public:
    SingleThreadedDecoder();
    ~SingleThreadedDecoder() override;

private slots:
    void slotFinished(const orvo::VideoFrame&);
};

}  // namespace orvo
