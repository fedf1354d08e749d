#pragma once
// JPEG 2000 images read by OpenJPEG straight from memory: the first step of aj2k's decoding.
#include <openjpeg.h>

#include <string>

namespace orvo::aj2k {

// A code stream (J2K) or file (JP2) opened for decoding: the codec, a stream over the
// caller's bytes (which must stay valid as long as the stream) and the image, its header
// read. Null members are not there.
struct OpenedImage {
    opj_codec_t* codec = nullptr;
    opj_stream_t* stream = nullptr;
    opj_image_t* image = nullptr;
};

// Opens data[0..size) as `input` (AJ2K_INPUT_*) and reads its header: AJ2K_OK, or an
// AJ2K_ERR_* code with `error` given the reason unless it holds one already (OpenJPEG's own
// messages reach `error` too, for as long as the codec lives). Pictures above AJ2K_MAX_PIXELS
// or wider or higher than 65535 are refused here. Whatever was opened is in `out` either way,
// for closeImage.
int openImage(const unsigned char* data, int size, int input, bool strict, int threads, std::string& error,
              OpenedImage& out);
// Frees what `opened` holds and empties it.
void closeImage(OpenedImage& opened);

}  // namespace orvo::aj2k
