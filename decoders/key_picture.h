#pragma once
// Key pictures of the FFmpeg-decoded formats that can be decoded at a reduced resolution:
// where a decoder opened afresh (at another factor) can take over a stream, and the full
// picture size declared there. Payloads come from the network: parsers read within `size`.
#include "decoders/mpeg4_header.h"

#include <QByteArray>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvo {

// True when the payload of `codec` can start a fresh decoder, with the picture size it
// declares: every Motion JPEG picture with a frame header; MxPEG images with a frame header
// and no macroblock bitmask; MPEG-4 Visual payloads with a VOL header and an I-VOP. False for
// every other codec and payload.
bool keyPictureSize(AVCodecID codec, const unsigned char* data, int size, int* width, int* height);

// Formats whose pictures are all independent: the decoder may be reopened before any payload.
inline bool independentPictures(AVCodecID codec) { return codec == AV_CODEC_ID_MJPEG; }

// keyPictureSize over one stream, with what it has to remember: MPEG-4 I-VOPs that come
// without their headers are key pictures once the headers were seen (see Mpeg4Headers).
class KeyPictures {
public:
    explicit KeyPictures(AVCodecID codec) : codec_(codec) {}
    // Whether every payload must be read, not just those where the factor may change.
    bool remembers() const { return codec_ == AV_CODEC_ID_MPEG4; }
    // True at a key picture, with its size; `missing` receives the headers a fresh decoder
    // must be given before the payload (empty when none).
    bool at(const unsigned char* data, int size, int* width, int* height, QByteArray* missing);

private:
    AVCodecID codec_;
    Mpeg4Headers mpeg4_;
};

}  // namespace orvo
