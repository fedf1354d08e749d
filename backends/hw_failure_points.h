#pragma once
// Failures of the GPU's video engine made on demand, and the emulated engine, for tests on
// machines with no GPU. Process-wide; every function may be called from any thread.
namespace orvo::hw {

enum class FailurePoint { DeviceOpen, GetFormat, SurfaceAllocation, MidStream, DeviceLost, Scaling, Count };

// The next `times` passes through `point` fail (0: none, -1: all).
void setFailure(FailurePoint point, int times);
// True when this pass through `point` is to fail (one of the counted ones is used up).
bool shouldFail(FailurePoint point);
void clearFailures();

void setEmulated(bool on);
bool emulated();

}  // namespace orvo::hw
