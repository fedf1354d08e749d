#pragma once
// JPEG 2000 at a reduced resolution chosen by a scale level (format code 'r'), through the
// aj2k library, into Format_YUV422P frames. Each level halves width and height; frames
// report the image's full size as maximal width and height.
#include "orvo/decoder.h"

#include <memory>

struct aj2k_handle;

namespace orvo {

class PlanePool;

class ORVO_EXPORT DecoderJPEG2000 : public AbstractDecoder {
public:
    // Throws the C string "error in initialization of DecoderJPEG2000" when the library fails.
    explicit DecoderJPEG2000(int scaleLevel);
    ~DecoderJPEG2000() override;
    static DecoderJPEG2000* get();  // level 0; the caller owns the decoder
    // Used from the next image on.
    void setScaleLevel(int level) { scaleLevel_ = level; }
    // With a size set, each image is decoded at the scale level that still covers it (the
    // smallest such picture), or at the scale level set above when that one is smaller.
    void setMaxOutputSize(const QSize& size) override { maxSize_ = size; }
    int scaleLevel() const { return scaleLevel_; }
    // Strict decoding: truncated or corrupt code streams fail. On a decoding failure the
    // frame has already been replaced (by a null frame, or the unfilled picture when only the
    // conversion failed); a failed size query leaves it.
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return false; }
    bool produces_shallow_images() const override { return false; }

private:
    int scaleLevel_ = 0;
    QSize maxSize_;
    aj2k_handle* handle_ = nullptr;
    std::unique_ptr<PlanePool> pool_;  // frames are recycled between pictures of one size
};

}  // namespace orvo
