#pragma once
// Test-only controls of the hardware decoding path, so that its fallback can be checked on
// machines with no GPU (pattern: setCodecMissingForTesting). Not for applications.
#include "orvo/export.h"

namespace orvo {

// The places where the GPU's video engine can fail a stream.
enum class HardwareFailurePoint {
    DeviceOpen,         // the device context does not open (no device, no driver)
    GetFormat,          // the decoder offers no hardware picture format for the stream
    SurfaceAllocation,  // the engine's picture pool cannot be allocated
    MidStream,          // a picture fails in the engine (counts towards the consecutive failures)
    DeviceLost,         // the device is lost (reset, removed): every stream on it leaves
    Scaling,            // the engine's scaling filter fails (pictures are fitted in software)
};

// The next `times` passes through `point` fail (0: none, -1: every one from now on).
ORVO_EXPORT void setHardwareFailureForTesting(HardwareFailurePoint point, int times);
// While on, devices open without a GPU and the engine is emulated: the stream is decoded in
// software and each picture goes through the same download (to NV12), cropping, conversion
// and failure points as a hardware picture. Decoders created while it is on use it.
ORVO_EXPORT void setEmulatedHardwareForTesting(bool on);
// Device contexts alive now, over every device type (each shared by its streams).
ORVO_EXPORT int openHardwareDevicesForTesting();
// Streams holding the device of `type` (FFmpeg's spelling, default device) now.
ORVO_EXPORT long hardwareDeviceUsersForTesting(const char* type);
// Pictures reduced on an engine (before their download) for a client's largest output size,
// process-wide, and whether engines may reduce them: off, they are downloaded in full and
// fitted in software (the comparison of benchmarks). On by default.
ORVO_EXPORT long hardwareReducedPicturesForTesting();
ORVO_EXPORT void setHardwareReducingForTesting(bool on);
// Whether CUDA downloads go into page-locked memory (benchmarks compare with ordinary
// memory). On by default.
ORVO_EXPORT void setHardwarePinningForTesting(bool on);
// Clears every injected failure, the memory of lost or unopened devices (so they are tried
// at once) and of the causes already logged.
ORVO_EXPORT void resetHardwareStateForTesting();

}  // namespace orvo
