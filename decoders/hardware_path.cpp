#include "decoders/hardware_path.h"

#include "backends/hw_session.h"
#include "orvo/log.h"

#include <mutex>
#include <set>

namespace orvo {
namespace {

LogCategory hardwareCategory("orvo.hardware");

struct LoggedCauses {
    std::mutex mutex;
    std::set<QString> lines;
};

LoggedCauses& loggedCauses()
{
    static LoggedCauses* causes = new LoggedCauses;  // used by pool threads up to the end
    return *causes;
}

// Bounds the memory of causes: texts name sizes and profiles, of which a process sees few.
constexpr size_t kMaxLoggedCauses = 256;

}  // namespace

HardwareRequest HardwareRequest::fromPreferences()
{
    DecoderPreferences* prefs = DecoderPreferences::instance();
    return {prefs->hardwareDecoding(), prefs->hardwareDeviceType(), prefs->hardwareDeviceName(),
            prefs->isApproximateHardwareDecoding()};
}

HardwareEngine findEngine(const HardwareRequest& request, const AVCodec* codec, formats::Engine use)
{
    HardwareEngine engine;
    const std::string format = codec ? codec->long_name ? codec->long_name : codec->name : "this format";
    if (use == formats::Engine::None) {
        engine.error = format + " is not decoded on the engine";
        return engine;
    }
    if (use == formats::Engine::Approximate && !request.approximate) {
        engine.error = "the engine's pictures of " + format +
                       " would differ from software ones (its inverse DCT is its own): "
                       "setApproximateHardwareDecoding(true) allows them";
        return engine;
    }
    engine.device = hw::acquireDevice(request.type, request.name, &engine.error);
    engine.deviceFailed = !engine.device;
    if (engine.device && !hw::Session::supports(codec, *engine.device, &engine.format, &engine.error))
        engine.device.reset();
    return engine;
}

DecodingPath softwarePath(const HardwareRequest& request, const std::string& reason)
{
    DecodingPath path;
    path.engine = DecodingPath::Engine::Software;
    if (request.mode != HardwareDecoding::Off) {
        path.deviceType = QString::fromStdString(request.type);
        path.reason = QString::fromStdString(reason);
    }
    return path;
}

DecodingPath hardwarePath(const HardwareRequest& request)
{
    DecodingPath path;
    path.engine = DecodingPath::Engine::Hardware;
    path.deviceType = QString::fromStdString(request.type);
    return path;
}

void logHardwareCause(const QString& line)
{
    LoggedCauses& causes = loggedCauses();
    {
        std::lock_guard<std::mutex> lock(causes.mutex);
        if (causes.lines.size() >= kMaxLoggedCauses || !causes.lines.insert(line).second)
            return;
    }
    olog(hardwareCategory, LOG_WARNING, "orvo::hardware", "%s", line.toUtf8().constData());
}

void forgetLoggedHardwareCauses()
{
    LoggedCauses& causes = loggedCauses();
    std::lock_guard<std::mutex> lock(causes.mutex);
    causes.lines.clear();
}

}  // namespace orvo
