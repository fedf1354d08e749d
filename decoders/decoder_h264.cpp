#include "orvo/decoder_h264.h"

#include "decoders/h264_payload.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"


namespace orvo {
namespace {

LogCategory h264Category("orvo.h264");

bool isStartCode(const unsigned char* p)
{
    return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1;
}

}  // namespace

namespace h264 {

void repairDoubleStartCodes(unsigned char* data, int length)
{
    for (int p = 0; p + 8 <= length; ++p)
        if (isStartCode(data + p) && isStartCode(data + p + 4))
            data[p + 3] = 0;
}

int cameraPayloadLength(unsigned char* data, int size, bool removeLastExtraByte, bool removeDoubleStartCodes)
{
    if (!data || size <= 4)
        return -1;
    int cut = -1;
    for (int k = 1; k + 4 <= size; ++k) {
        if (isStartCode(data + k)) {
            cut = k;
            break;
        }
    }
    if (cut < 0)
        return -1;
    // A start code and a single byte right before the cut: drop that byte. The checks
    // look back from the cut only as far as the payload reaches.
    if (removeLastExtraByte && cut >= 5 && isStartCode(data + cut - 5))
        cut -= 1;
    if (removeDoubleStartCodes) {
        if (cut >= 4 && data[cut - 4] == 0xFF && data[cut - 3] == 0xFF && data[cut - 2] == 0xFF &&
            data[cut - 1] == 0xFF)
            cut -= 4;
        if (cut > 7)
            repairDoubleStartCodes(data, cut);
    }
    return cut;
}

}  // namespace h264

DecoderH264::DecoderH264() : DecoderAV(FormatIn_H264) {}

DecoderH264::~DecoderH264() = default;

DecoderH264* DecoderH264::get() { return new DecoderH264; }

void DecoderH264::release() { delete this; }

void DecoderH264::release(DecoderH264* decoder) { delete decoder; }

void DecoderH264::init() { iframeWanted_ = true; }

void DecoderH264::i_want_iframe()
{
    iframeWanted_ = true;
    iframeRequested_ = true;
}

void DecoderH264::i_dont_want_iframe() { iframeWanted_ = false; }

bool DecoderH264::is_iframe_wanted() { return iframeWanted_; }

int& DecoderH264::get_last_frame_number() { return lastFrameNumber_; }

int& DecoderH264::get_frame_num_bits() { return frameNumBits_; }

bool DecoderH264::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe)
{
    if (h264Category.isDebugEnabled())
        olog(h264Category, LOG_DEBUG, "orvo::DecoderH264::decode", "yuvImage.id=%lld. iframe=%s",
             static_cast<long long>(frame.id()), iframe ? "true" : "false");
    DecoderPreferences* prefs = DecoderPreferences::instance();
    const int length = h264::cameraPayloadLength(data, size, prefs->isRemoveLastExtraByteH264(),
                                                 prefs->isRemoveDoubleStartCodesH264());
    if (length < 0)
        return false;
    return decodeTagged(data, length, frame);
}

}  // namespace orvo
