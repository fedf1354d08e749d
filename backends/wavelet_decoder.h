#pragma once
// WaveletDecoder: the SDK's wavelet library for the fields of analog video servers, over
// FFmpeg's VC-2/Dirac decoder.
//
// A decoder is built for one picture size (the field: 720 x 243 or 720 x 288) and one scale
// level (0 to 2; other values are clamped). Every image is decoded on its own (the codec is
// intra-only), so images may be skipped or repeated. The output keeps the field's proportions
// under the display scale (1, 2) at level 0 and (1, 1) above:
//   level 0: width x height,  level 1: width/2 x height,  level 2: width/4 x height/2.
// One decoder is used by one thread at a time; decoders are independent of each other.
// Internal to the library: DecoderWavelet is its client.
#include <memory>

namespace orvo {

class WaveletDecoder {
public:
    // Not initialised (every decode fails) when the size is not positive, the output width
    // would be odd, or FFmpeg's decoder cannot be opened.
    WaveletDecoder(int width, int height, int scaleLevel);
    virtual ~WaveletDecoder();
    WaveletDecoder(const WaveletDecoder&) = delete;
    WaveletDecoder& operator=(const WaveletDecoder&) = delete;

    bool isInitialized() const { return initialized_; }
    int width() const { return width_; }    // configured picture
    int height() const { return height_; }
    int scaleLevel() const { return scaleLevel_; }
    int outputWidth() const { return outputWidth_; }  // picture that decode() writes
    int outputHeight() const { return outputHeight_; }

    // Plane layout that decode() writes: Y has outputWidth() bytes a line and outputHeight()
    // lines; U and V have chromaBytesPerLine() bytes a line (half the output width, made even)
    // and chromaLines() lines, 4:2:0.
    int chromaBytesPerLine() const { return ((outputWidth_ / 2) + 1) & ~1; }
    int chromaLines() const { return (outputHeight_ + 1) / 2; }

    // Decodes one image (data, size) into the planes starting at y, u and v. The end pointers
    // bound each plane (one past its last byte); a plane too small for the layout above, a
    // picture of another size than configured, or undecodable data give false, and nothing is
    // written outside [y, yEnd), [u, uEnd), [v, vEnd).
    bool decode(unsigned char* data, long size, unsigned char* y, unsigned char* u, unsigned char* v,
                unsigned char* yEnd, unsigned char* uEnd, unsigned char* vEnd);

private:
    struct Codec;
    std::unique_ptr<Codec> codec_;
    bool initialized_ = false;
    int width_ = 0;
    int height_ = 0;
    int scaleLevel_ = 0;
    int outputWidth_ = 0;
    int outputHeight_ = 0;
};

}  // namespace orvo
