#pragma once
// The picture size a JPEG payload declares in its frame header (SOF), read without
// decoding: how the FFmpeg path picks its reduced-resolution factor before the picture
// is decoded. Payloads come from the network: every read is bounded by `size`.
namespace orvo {

// True with the size of the first frame header before the scan; false when the payload
// is not a JPEG stream or declares none.
bool jpegPictureSize(const unsigned char* data, int size, int* width, int* height);

// MxPEG: true when the image can start a decoder afresh, an image with a frame header and no
// "MXM" comment (the macroblock bitmask of a P-frame, laid over the previous picture); the
// size from that frame header.
bool mxpegKeyPictureSize(const unsigned char* data, int size, int* width, int* height);

// The largest reduced-resolution factor k (0..maxLowres) whose picture, w and h divided
// by 2^k and rounded up, still covers a w x h picture scaled down to fit inside
// maxWidth x maxHeight (aspect kept). 0 when the picture already fits.
int lowresFactorFor(int width, int height, int maxWidth, int maxHeight, int maxLowres);

}  // namespace orvo
