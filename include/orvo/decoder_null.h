#pragma once
// DecoderNULL: the decoder of codes 0 and 'Y'. It decodes nothing (every decode fails);
// it exists so that a code without a decoder still yields a decoder object.
#include "orvo/decoder.h"

namespace orvo {

class ORVO_EXPORT DecoderNULL : public AbstractDecoder {
public:
    // The one process-wide instance; it is never destroyed.
    static DecoderNULL* instance();
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    DecoderNULL() = default;
};

}  // namespace orvo
