#include "orvo/decoder_av.h"

#include "decoders/format_table.h"
#include "decoders/jpeg2000_boxes.h"
#include "orvo/decoder_preferences.h"

#include <new>

namespace orvo {

DecoderAV::DecoderAV(FormatIn format) : format_(format), module_(DecodeContext{format, 1}) {}

DecoderAV::~DecoderAV() = default;

unsigned char DecoderAV::getFormat() const
{
    const formats::Format* row = formats::forInput(format_);
    return row ? row->ffmpegCode : '?';
}

bool DecoderAV::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    if (!data || size < 0)
        return false;
    int start = 0;
    DecoderPreferences* prefs = DecoderPreferences::instance();
    // The box search runs whatever the codec: cameras wrap other streams in JPEG 2000
    // boxes too, and the switches are global.
    if (!prefs->jpeg2000passthrough())
        start = jp2::codestreamStart(data, size, prefs->jpeg2000codestream(), prefs->jpeg2000display_atoms());
    return decodeTagged(data + start, size - start, frame);
}

bool DecoderAV::decodeTagged(const unsigned char* data, int size, orvo::VideoFrame& frame)
{
    FFmpegModule::PayloadResult result = FFmpegModule::PayloadResult::Rejected;
    qint64 tag = -1;
    try {
        result = module_.decodePayload(data, size, payloadTag(), frame, &tag, payloadEndsUnit());
    } catch (const std::bad_alloc&) {
        result = FFmpegModule::PayloadResult::Rejected;
    }
    setPayloadAccepted(result == FFmpegModule::PayloadResult::Accepted);
    if (result == FFmpegModule::PayloadResult::Rejected)
        setPayloadFailure(module_.rejectReason());
    if (result != FFmpegModule::PayloadResult::Picture)
        return false;
    setPictureTag(tag);
    return true;
}

bool DecoderAV::nextPicture(orvo::VideoFrame& frame)
{
    qint64 tag = -1;
    if (!module_.nextPicture(frame, &tag))
        return false;
    setPictureTag(tag);
    return true;
}

bool DecoderAV::takeEndedPayload(qint64* tag, QString* reason) { return module_.takeEnded(tag, reason); }

bool DecoderAV::drain(orvo::VideoFrame& frame)
{
    qint64 tag = -1;
    if (!module_.drain(frame, &tag))
        return false;
    setPictureTag(tag);
    return true;
}

}  // namespace orvo
