#include "orvo/decoder_av.h"

#include "decoders/jpeg2000_boxes.h"
#include "orvo/decoder_preferences.h"

#include <new>

namespace orvo {

DecoderAV::DecoderAV(FormatIn format) : format_(format), module_(DecodeContext{format, 1}) {}

DecoderAV::~DecoderAV() = default;

unsigned char DecoderAV::getFormat() const
{
    switch (format_) {
    case FormatIn_H264: return 'h';
    case FormatIn_JPEG2000: return 'r';
    case FormatIn_MJPEG: return 'j';
    case FormatIn_MPEG2: return 'M';
    case FormatIn_MPEG4: return 'm';
    case FormatIn_MXPEG: return 'X';
    case FormatIn_HEVC: return 'e';
    }
    return '?';
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
    try {
        QByteArray packet;
        packet.reserve(size - start + 64);
        packet.append(reinterpret_cast<const char*>(data) + start, size - start);
        return module_.decode(packet, frame);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace orvo
