#pragma once
// The GPU devices hardware decoding runs on: one FFmpeg device context per device type and
// device name, opened by the first stream that asks for it, shared by every stream on it and
// released with the last (reference-counted). Every engine FFmpeg offers (cuda, vaapi, vdpau,
// vulkan, ...) is opened the same way; they differ only by the type's name.
//
// A device that does not open, or that was lost (reset, removed), is not opened again for
// kRetryDelay: streams created meanwhile decode in software, and none of them pays for a
// driver that fails at every picture. Every function may be called from any thread.
extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/hwcontext.h>
}

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace orvo::hw {

constexpr std::chrono::seconds kRetryDelay{30};

class Device {
public:
    Device(AVBufferRef* context, AVHWDeviceType type, std::string key);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // FFmpeg's device context; null for the emulated engine of tests.
    AVBufferRef* context() const { return context_; }
    AVHWDeviceType type() const { return type_; }
    // True once any stream found the device lost: every stream on it then leaves it.
    bool isLost() const { return lost_.load(std::memory_order_acquire); }
    // Marks the device lost (the first reason is kept); it is opened anew, after
    // kRetryDelay, for streams created later.
    void markLost(const std::string& reason);
    std::string lostReason() const;

private:
    AVBufferRef* context_;
    AVHWDeviceType type_;
    std::string key_;
    std::atomic<bool> lost_{false};
    static std::atomic<int> alive_;
    friend int openDevices();
    mutable std::mutex mutex_;
    std::string lostReason_;
};

using DeviceRef = std::shared_ptr<Device>;

// FFmpeg's device type called `name`; AV_HWDEVICE_TYPE_NONE for a name it does not know.
AVHWDeviceType deviceTypeByName(const std::string& name);
// The names of the device types the linked FFmpeg knows, comma-separated.
std::string knownDeviceTypes();
// The device of `type` and `name` (empty: the default device), opened or shared; null, with
// `error` saying why, when it does not open or is waiting out kRetryDelay.
DeviceRef acquireDevice(const std::string& type, const std::string& name, std::string* error);

// For tests: device contexts alive, the streams holding one, and forgetting failed devices.
int openDevices();
long deviceUsers(const std::string& type, const std::string& name);
void forgetFailedDevices();

}  // namespace orvo::hw
