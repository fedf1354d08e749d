#include "orvo/decoder_preferences.h"

namespace orvo {

DecoderPreferences* DecoderPreferences::instance()
{
    static DecoderPreferences preferences;  // created once, thread-safe since C++11
    return &preferences;
}

}  // namespace orvo
