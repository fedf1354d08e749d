#pragma once
// JPEG 2000 at a reduced resolution chosen by a scale level (format code 'r'),
// through the JPEG 2000 library, into Format_YUV422P frames.
#include "orvo/decoder.h"

namespace orvo {

class DecoderJPEG2000 : public AbstractDecoder {
public:
    // Throws the C string "error in initialization of DecoderJPEG2000" when the library fails.
    explicit DecoderJPEG2000(int scaleLevel);
    ~DecoderJPEG2000() override;
    static DecoderJPEG2000* get();
    void setScaleLevel(int level) { scaleLevel_ = level; }
    int scaleLevel() const { return scaleLevel_; }
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override { return 'r'; }
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    int scaleLevel_ = 0;
    void* handle_ = nullptr;
};

}  // namespace orvo
