#pragma once
// aj2k: the SDK's JPEG 2000 library, decoding images held in memory (raw J2K code streams
// or JP2 files) at a reduced resolution into separate 8-bit 4:2:2 planes. Built over OpenJPEG.
// A C interface internal to the library (DecoderJPEG2000 is its client).
//
// Every function returns 0 on success and a non-zero AJ2K_ERR_* code on failure; the text of
// the last failure is available from aj2k_lasterror(). A handle is used by one thread at a
// time; different handles are independent. Decoding itself may run on up to
// aj2k_setmaxthreads() threads of the library's own.
#include "orvo/picture_bound.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct aj2k_handle aj2k_handle;

enum {
    AJ2K_OK = 0,
    AJ2K_ERR_ARGUMENT = 1,  // null handle or pointer, negative size, unsupported option
    AJ2K_ERR_MEMORY = 2,    // out of memory
    AJ2K_ERR_FORMAT = 3,    // neither a J2K code stream nor a JP2 file, or a damaged header
    AJ2K_ERR_DECODE = 4,    // the code stream could not be decoded (truncated, corrupt)
    AJ2K_ERR_SIZE = 5,      // picture larger than the library accepts (see AJ2K_MAX_PIXELS)
};

// Flags of aj2k_initjp2.
enum {
    AJ2K_INIT_DEFAULT = 0,  // tolerant: a truncated code stream decodes as far as it goes
    AJ2K_INIT_STRICT = 1,   // a truncated or incomplete code stream is an error
};

// Input kinds (the `input` argument of the decoding functions).
enum {
    AJ2K_INPUT_AUTO = 0,  // told apart by the JP2 signature box / the SOC+SIZ markers
    AJ2K_INPUT_J2K = 1,   // raw code stream
    AJ2K_INPUT_JP2 = 2,   // JP2 file
};

// Full-resolution pictures above this many pixels (or wider or higher than 65535) are
// refused before any picture memory is allocated: the library's one picture bound.
#define AJ2K_MAX_PIXELS ORVO_MAX_PICTURE_PIXELS

// Creates a handle in *handle (null on failure).
int aj2k_initjp2(aj2k_handle** handle, int flags);

// Frees the handle and everything it keeps; a null handle is ignored.
void aj2k_deinitjp2(aj2k_handle* handle);

// With `reuse` non-zero, the header that aj2k_jp2memgetdims reads is kept and the next
// aj2k_jp2memtoraw_splanes of the same buffer (same address, size and header bytes) decodes
// from it instead of reading it again. Any other call drops the kept header. Off by default.
int aj2k_reuseimgmemory(aj2k_handle* handle, int reuse);

// At most `threads` decoding threads per image (1 to 64; default 1).
int aj2k_setmaxthreads(aj2k_handle* handle, int threads);

// Full-resolution width, height and number of components of the image in data[0..size).
// Outputs are set to 0 on failure.
int aj2k_jp2memgetdims(aj2k_handle* handle, const unsigned char* data, int size, int input, int* width,
                       int* height, int* components);

// Decodes data[0..size) at resolution level `scaleLevel` (0 full size, each level halves width
// and height, rounding up as JPEG 2000 does; levels beyond what the code stream holds give
// its smallest resolution, negative levels count as 0) and keeps the picture in the handle for
// aj2k_writeplanes; *width and *height receive its size (0 on failure). Any other call on the
// handle drops a picture not yet written.
int aj2k_jp2memdecode(aj2k_handle* handle, const unsigned char* data, int size, int input, int scaleLevel,
                      int* width, int* height);

// Writes the picture of the last aj2k_jp2memdecode into 8-bit 4:2:2 planes and drops it:
//   Y: width x height samples, rows yBytesPerLine bytes apart;
//   U, V: (width + 1) / 2 x height samples, rows uvBytesPerLine bytes apart.
// The planes are written at the even width (width + 1) & ~1: rows must hold that many bytes
// (Y) and half of it (U, V), else nothing is written and the call fails. With `slack`
// non-zero, sws::kOutputSlack writable bytes follow the last row of each plane (planes from
// the plane pool), so that the colour conversion writes in place. Colour as below.
int aj2k_writeplanes(aj2k_handle* handle, unsigned char* y, int yBytesPerLine, unsigned char* u, unsigned char* v,
                     int uvBytesPerLine, int slack);

// aj2k_jp2memdecode and aj2k_writeplanes into planes of the library's own:
//   Y: *width x *height samples, *yBytesPerLine bytes a line;
//   U, V: (*width + 1) / 2 x *height samples (4:2:2), *uBytesPerLine / *vBytesPerLine a line.
// Plane memory: on entry *y, *u and *v point to buffers from new[] (or are null) of *ySize,
// *uSize and *vSize bytes. A buffer too small for its plane is released with delete[] and
// replaced by a new[] buffer, and its size updated; the library never writes outside the
// buffers it was given or made. On return the caller owns whatever *y, *u and *v hold, also
// on failure; *ySize, *uSize and *vSize always tell the sizes of those buffers.
// Colour: three components of equal size without a YCbCr colour space are RGB and are
// converted to BT.601 video-range YCbCr through swscale; YCbCr components (a JP2 sYCC/e-YCC colour space, or
// subsampled chroma) are resampled to 4:2:2 as they are; one or two components are greyscale
// (U and V 128). Samples of other precisions are shifted to 8 bits.
// `bitsPerSample` must be 8. On failure *width and *height are 0 and the planes hold nothing
// meaningful.
int aj2k_jp2memtoraw_splanes(aj2k_handle* handle, const unsigned char* data, int size, int input,
                             unsigned char** y, int* ySize, int* yBytesPerLine,
                             unsigned char** u, int* uSize, int* uBytesPerLine,
                             unsigned char** v, int* vSize, int* vBytesPerLine,
                             int* width, int* height, int scaleLevel, int bitsPerSample);

// Text of the handle's last failure ("" when the last call succeeded); valid until the next
// call on the handle.
const char* aj2k_lasterror(const aj2k_handle* handle);

#ifdef __cplusplus
}
#endif
