#pragma once
// The SDK's MxPEG library, over FFmpeg's MxPEG decoder; internal to the library (DecoderMXPEG
// is its client).
//
// MxPEG cameras send I-frames (ordinary JPEG images with a frame header) and P-frames without
// a frame header: a COM segment "MXM" with a bitmask of the 16 x 16 macroblocks that changed
// and a scan of only those macroblocks, to be laid over the previous picture.
//
// A decoding state belongs to one stream and is used by one thread at a time.

// Width and height from the image's first frame header (SOF marker) before its scan; 0 x 0
// for an image that carries none (a P-frame) or whose headers are damaged. Reads only
// data[0..size).
void xpegGetWH(void* data, int size, int* width, int* height);

// Decodes one I- or P-frame of data[0..size) over the picture kept in `state` (created on
// first use; free it with mxpegFreeState) and writes the whole picture, 8-bit 4:2:0, into:
//   y: `width` bytes a line, `height` lines;
//   u, v: (width + 1) / 2 bytes a line, (height + 1) / 2 lines.
// Throws std::runtime_error (std::bad_alloc when out of memory) when the image cannot be
// decoded, yields no picture (a P-frame before any I-frame), or its picture is not exactly
// width x height; nothing is written to the planes then.
void mxpeg2yuv(void*& state, char* data, int size, int width, int height, void* y, void* u, void* v);

// A state that decodes at 1/2^lowres of the picture size (FFmpeg's reduced resolution): every
// size above, the planes' included, is then the reduced one, each side rounded up. Throws as
// mxpeg2yuv does when the decoder cannot be opened.
void* mxpegCreateState(int lowres);
// The largest factor the linked decoder offers (0: none).
int mxpegMaxLowres();

// Frees a state made by mxpeg2yuv and sets it to null; a null state is ignored.
void mxpegFreeState(void*& state);
