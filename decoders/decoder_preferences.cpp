#include "orvo/decoder_preferences.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace orvo {

DecoderPreferences* DecoderPreferences::instance()
{
    static DecoderPreferences preferences;  // created once, thread-safe since C++11
    return &preferences;
}

bool DecoderPreferences::setHardwareDeviceType(const std::string& type)
{
    if (av_hwdevice_find_type_by_name(type.c_str()) == AV_HWDEVICE_TYPE_NONE)
        return false;
    hardwareDeviceType_.set(type);
    return true;
}

}  // namespace orvo
