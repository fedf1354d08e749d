#pragma once
// Key pictures of the FFmpeg-decoded formats that can be decoded at a reduced resolution:
// where a decoder opened afresh (at another factor) can take over a stream, and the full
// picture size declared there. Payloads come from the network: parsers read within `size`.
extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvo {

// True when the payload of `codec` can start a fresh decoder, with the picture size it
// declares: every Motion JPEG picture with a frame header; MxPEG images with a frame header
// and no macroblock bitmask; MPEG-4 Part 2 payloads with a VOL header and an I-VOP. False for
// every other codec and payload.
bool keyPictureSize(AVCodecID codec, const unsigned char* data, int size, int* width, int* height);

// Formats whose pictures are all independent: the decoder may be reopened before any payload.
inline bool independentPictures(AVCodecID codec) { return codec == AV_CODEC_ID_MJPEG; }

}  // namespace orvo
