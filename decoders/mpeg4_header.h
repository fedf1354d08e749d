#pragma once
// Where an MPEG-4 Visual stream can be decoded from scratch, and its picture size there, read
// without decoding: how the FFmpeg path knows when it may reopen its decoder at another
// reduced-resolution factor. Payloads come from the network: every read is bounded by `size`.
#include <QByteArray>

namespace orvo {

// True when the payload holds a video object layer header (VOL) of a rectangular picture and
// the first picture (VOP) after it is intra-coded; `width` and `height` receive the size that
// header declares. False for anything else: P-, B- and S-VOPs, VOLs without an I-VOP after
// them in the same payload, other shapes, damaged or cut headers.
bool mpeg4KeyPictureSize(const unsigned char* data, int size, int* width, int* height);

// The same over a stream whose I-VOPs may come without the headers (cameras that send them
// once, or only now and then): an I-VOP is a key picture too once a VOL was seen, and a
// decoder opened there is given the headers remembered from the last payload that held them
// (the bytes from its first start code up to its first group or VOP).
class Mpeg4Headers {
public:
    // True when a fresh decoder can start at the payload, with the picture size; `missing`
    // then receives the headers that decoder must be given first (empty when the payload
    // holds its own).
    bool keyPicture(const unsigned char* data, int size, int* width, int* height, QByteArray* missing);

private:
    QByteArray headers_;
    int width_ = 0;
    int height_ = 0;
};

}  // namespace orvo
