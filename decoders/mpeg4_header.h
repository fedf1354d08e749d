#pragma once
// Where an MPEG-4 Part 2 stream can be decoded from scratch, and its picture size there, read
// without decoding: how the FFmpeg path knows when it may reopen its decoder at another
// reduced-resolution factor. Payloads come from the network: every read is bounded by `size`.
namespace orvo {

// True when the payload holds a video object layer header (VOL) of a rectangular picture and
// the first picture (VOP) after it is intra-coded; `width` and `height` receive the size that
// header declares. False for anything else: P-, B- and S-VOPs, VOLs without an I-VOP after
// them in the same payload, other shapes, damaged or cut headers.
bool mpeg4KeyPictureSize(const unsigned char* data, int size, int* width, int* height);

}  // namespace orvo
