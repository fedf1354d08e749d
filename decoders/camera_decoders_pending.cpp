// Placeholders for the camera decoders; replaced file by file as they are implemented.
#include "orvo/decoder_jpeg.h"
#include "orvo/decoder_jpeg2000.h"
#include "orvo/decoder_mxpeg.h"
#include "orvo/decoder_wavelet.h"

namespace orvo {

bool DecoderJPEG::decode(unsigned char*, int, orvo::VideoFrame&, bool) { return false; }

DecoderMXPEG::DecoderMXPEG() = default;
DecoderMXPEG::~DecoderMXPEG() = default;
bool DecoderMXPEG::decode(unsigned char*, int, orvo::VideoFrame&, bool) { return false; }

DecoderJPEG2000::DecoderJPEG2000(int scaleLevel) : scaleLevel_(scaleLevel) {}
DecoderJPEG2000::~DecoderJPEG2000() = default;
DecoderJPEG2000* DecoderJPEG2000::get() { return new DecoderJPEG2000(0); }
bool DecoderJPEG2000::decode(unsigned char*, int, orvo::VideoFrame&, bool) { return false; }

DecoderWavelet::DecoderWavelet(int width, int height, int scaleLevel)
    : width_(width), height_(height), scaleLevel_(scaleLevel)
{
}
DecoderWavelet::~DecoderWavelet() = default;
int DecoderWavelet::scaleLevel() const { return scaleLevel_; }
unsigned char DecoderWavelet::getFormat() const { return height_ == 243 ? 'n' : 'p'; }
bool DecoderWavelet::decode(unsigned char*, int, orvo::VideoFrame&, bool) { return false; }

}  // namespace orvo
