#pragma once
// DecoderH264: H.264 from cameras whose payloads need cutting and repair before FFmpeg
// accepts them (code 'h' when the preference lookForNALsH264 is on). Each payload is cut
// at its first start code after offset 0; the camera repairs chosen by the preferences
// (removeLastExtraByteH264, removeDoubleStartCodesH264) are applied, and the remaining
// bytes go to FFmpeg as one packet. The repairs may write into the caller's payload.
// Cameras that send one NAL unit per payload (followed by the next start code, where
// this decoder cuts) are decoded exactly: a picture comes out with its last slice.
#include "orvo/decoder_av.h"

namespace orvo {

class ORVO_EXPORT DecoderH264 : public DecoderAV {
public:
    DecoderH264();
    ~DecoderH264() override;
    // A new decoder on each call; free it with release() (or delete).
    static DecoderH264* get();
    void release();
    static void release(DecoderH264* decoder);

    // I-frame bookkeeping for callers; decode() neither reads nor changes it.
    void i_want_iframe();
    void i_dont_want_iframe();
    bool is_iframe_wanted();
    int& get_last_frame_number();
    int& get_frame_num_bits();

    // False without calling FFmpeg when the payload has no start code after offset 0.
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;

protected:
    void init();

private:
    bool iframeWanted_ = true;
    bool iframeRequested_ = false;
    int lastFrameNumber_ = 0;
    int frameNumBits_ = 0;
};

}  // namespace orvo
