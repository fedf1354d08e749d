#pragma once
// JPEG through Qt's image reader (format code 'j' when the preference
// decodeMJPEGThroughQImage is on). Payloads carry a 384-byte header before the JPEG.
#include "orvo/decoder.h"

#include <memory>

namespace orvo {

class ORVO_EXPORT DecoderJPEG : public AbstractDecoder {
public:
    DecoderJPEG();
    ~DecoderJPEG() override;
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace orvo
