#include "backends/hw_device.h"

#include "backends/hw_failure_points.h"

extern "C" {
#include <libavutil/error.h>
}

#include <map>
#include <new>

namespace orvo::hw {
namespace {

using Clock = std::chrono::steady_clock;

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<Device>> devices;
    // Devices that failed to open or were lost: when they may be tried again, and why.
    std::map<std::string, std::pair<Clock::time_point, std::string>> failed;
};

Registry& registry()
{
    static Registry* r = new Registry;  // never destroyed: streams may outlive static destruction
    return *r;
}

std::string keyOf(const std::string& type, const std::string& name) { return type + '\n' + name; }

std::string errorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

// Said with every failure: what a stream created meanwhile is told is the same cause.
std::string retryNote() { return "; not tried again for " + std::to_string(kRetryDelay.count()) + " s"; }

void noteFailure(Registry& r, const std::string& key, const std::string& reason)
{
    r.failed[key] = {Clock::now() + kRetryDelay, reason};
}

}  // namespace

std::atomic<int> Device::alive_{0};

Device::Device(AVBufferRef* context, AVHWDeviceType type, std::string key)
    : context_(context), type_(type), key_(std::move(key))
{
    ++alive_;
}

Device::~Device()
{
    av_buffer_unref(&context_);
    --alive_;
}

void Device::markLost(const std::string& reason)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (lost_.load())
            return;
        lostReason_ = reason;
        lost_.store(true, std::memory_order_release);
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto it = r.devices.find(key_);
    if (it != r.devices.end() && it->second.lock().get() == this)
        r.devices.erase(it);
    noteFailure(r, key_, "the device was lost (" + reason + ")" + retryNote());
}

std::string Device::lostReason() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lostReason_;
}

AVHWDeviceType deviceTypeByName(const std::string& name) { return av_hwdevice_find_type_by_name(name.c_str()); }

std::string knownDeviceTypes()
{
    std::string names;
    for (AVHWDeviceType t = av_hwdevice_iterate_types(AV_HWDEVICE_TYPE_NONE); t != AV_HWDEVICE_TYPE_NONE;
         t = av_hwdevice_iterate_types(t)) {
        if (!names.empty())
            names += ", ";
        names += av_hwdevice_get_type_name(t);
    }
    return names;
}

DeviceRef acquireDevice(const std::string& type, const std::string& name, std::string* error)
{
    const AVHWDeviceType t = deviceTypeByName(type);
    if (t == AV_HWDEVICE_TYPE_NONE) {
        *error = "unknown hardware device type '" + type + "' (this FFmpeg knows: " + knownDeviceTypes() + ")";
        return nullptr;
    }
    const std::string key = keyOf(type, name);
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto shared = r.devices.find(key);
    if (shared != r.devices.end()) {
        if (DeviceRef device = shared->second.lock())
            return device;
        r.devices.erase(shared);
    }
    const auto failed = r.failed.find(key);
    if (failed != r.failed.end()) {
        if (Clock::now() < failed->second.first) {
            *error = failed->second.second;
            return nullptr;
        }
        r.failed.erase(failed);
    }
    AVBufferRef* context = nullptr;
    int ret = 0;
    if (shouldFail(FailurePoint::DeviceOpen))
        ret = AVERROR(ENODEV);
    else if (!emulated())
        ret = av_hwdevice_ctx_create(&context, t, name.empty() ? nullptr : name.c_str(), nullptr, 0);
    if (ret < 0) {
        *error = "the " + type + " device" + (name.empty() ? std::string() : " '" + name + "'") +
                 " did not open: " + errorText(ret) + retryNote();
        noteFailure(r, key, *error);
        return nullptr;
    }
    DeviceRef device(new (std::nothrow) Device(context, t, key));
    if (!device) {
        av_buffer_unref(&context);
        *error = "out of memory";
        return nullptr;
    }
    r.devices[key] = device;
    return device;
}

int openDevices() { return Device::alive_.load(); }

long deviceUsers(const std::string& type, const std::string& name)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto it = r.devices.find(keyOf(type, name));
    return it == r.devices.end() ? 0 : it->second.use_count();
}

void forgetFailedDevices()
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.failed.clear();
}

}  // namespace orvo::hw
