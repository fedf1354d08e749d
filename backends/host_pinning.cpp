#include "backends/host_pinning.h"

#include <ffnvcodec/dynlink_cuda.h>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/hwcontext_cuda.h>
}

#include <atomic>
#include <dlfcn.h>
#include <mutex>

namespace orvo::hw {
namespace {

struct Driver {
    CUresult (*hostRegister)(void*, size_t, unsigned int) = nullptr;
    CUresult (*hostUnregister)(void*) = nullptr;
    CUresult (*pushContext)(CUcontext) = nullptr;
    CUresult (*popContext)(CUcontext*) = nullptr;
};

const Driver* driver()
{
    static Driver d;
    static bool ok = false;
    static std::once_flag once;
    std::call_once(once, [] {
        // RTLD_NOLOAD: only the driver FFmpeg already loaded for the device; never closed.
        void* handle = dlopen("libcuda.so.1", RTLD_NOW | RTLD_NOLOAD);
        if (!handle)
            return;
        d.hostRegister = reinterpret_cast<decltype(d.hostRegister)>(dlsym(handle, "cuMemHostRegister_v2"));
        d.hostUnregister = reinterpret_cast<decltype(d.hostUnregister)>(dlsym(handle, "cuMemHostUnregister"));
        d.pushContext = reinterpret_cast<decltype(d.pushContext)>(dlsym(handle, "cuCtxPushCurrent_v2"));
        d.popContext = reinterpret_cast<decltype(d.popContext)>(dlsym(handle, "cuCtxPopCurrent_v2"));
        ok = d.hostRegister && d.hostUnregister && d.pushContext && d.popContext;
    });
    return ok ? &d : nullptr;
}

CUcontext contextOf(const AVBufferRef* device)
{
    const auto* context = device ? reinterpret_cast<const AVHWDeviceContext*>(device->data) : nullptr;
    if (!context || context->type != AV_HWDEVICE_TYPE_CUDA)
        return nullptr;
    return static_cast<const AVCUDADeviceContext*>(context->hwctx)->cuda_ctx;
}

std::atomic<bool> enabled{true};

}  // namespace

bool pinForCuda(const AVBufferRef* device, void* data, size_t size)
{
    const CUcontext context = contextOf(device);
    const Driver* d = context && enabled.load(std::memory_order_relaxed) ? driver() : nullptr;
    if (!d || d->pushContext(context) != CUDA_SUCCESS)
        return false;
    const bool pinned = d->hostRegister(data, size, 0) == CUDA_SUCCESS;
    CUcontext popped;
    d->popContext(&popped);
    return pinned;
}

void unpinForCuda(const AVBufferRef* device, void* data)
{
    const CUcontext context = contextOf(device);
    const Driver* d = context ? driver() : nullptr;
    if (!d || d->pushContext(context) != CUDA_SUCCESS)
        return;
    d->hostUnregister(data);
    CUcontext popped;
    d->popContext(&popped);
}

void setPinning(bool on) { enabled.store(on, std::memory_order_relaxed); }
bool pinning() { return enabled.load(std::memory_order_relaxed); }

}  // namespace orvo::hw
