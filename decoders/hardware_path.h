#pragma once
// How a format decoder comes to the GPU's video engine: the preferences read at its creation,
// the shared device and the engine's support for the codec, the path it reports, and the
// one log line per cause of leaving (or not reaching) the engine.
#include "backends/hw_device.h"
#include "decoders/format_table.h"
#include "orvo/decoder_preferences.h"
#include "orvo/decoding_path.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <QString>
#include <string>

namespace orvo {

struct HardwareRequest {
    HardwareDecoding mode = HardwareDecoding::Off;
    std::string type;
    std::string name;
    bool approximate = false;  // the DCT formats on the engine too
    // The preferences as they are now.
    static HardwareRequest fromPreferences();
};

// The engine for one decoder of `codec`: the device and the engine's picture format, or
// `error` saying why there is none. `use`: the format table's engine column.
struct HardwareEngine {
    hw::DeviceRef device;
    AVPixelFormat format = AV_PIX_FMT_NONE;
    std::string error;
    bool deviceFailed = false;  // the device did not open (or waits out its delay): worth trying later
};
HardwareEngine findEngine(const HardwareRequest& request, const AVCodec* codec, formats::Engine use);

DecodingPath softwarePath(const HardwareRequest& request, const std::string& reason);
DecodingPath hardwarePath(const HardwareRequest& request);

// Writes `line` to the library's log unless the same cause was logged before in this process
// (64 streams that find no device say so once).
void logHardwareCause(const QString& line);
void forgetLoggedHardwareCauses();

}  // namespace orvo
