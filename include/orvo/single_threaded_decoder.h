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

    // 1 when the image was taken: its picture is emitted (stamped with the identity of
    // the image it came from, which may be an earlier one), or none when the decoder holds
    // it back or the image carries none (parameter sets). 0, with an error carrying the
    // image's id, when the image was refused or could not be decoded.
    int decode(const Image& image) override;
    // End of stream: emits every picture the decoder still holds; the decoder then takes
    // a new stream from its next I-frame.
    void drain();
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
    // End of stream: emits every picture the decoder still holds.
    void drain();

private slots:
    void slotFinished(const orvo::VideoFrame&);
};

}  // namespace orvo
