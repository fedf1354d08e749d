#include "orvo/hardware_testing.h"

#include "backends/host_pinning.h"
#include "backends/hw_device.h"
#include "backends/hw_failure_points.h"
#include "backends/hw_session.h"
#include "decoders/hardware_path.h"

namespace orvo {

void setHardwareFailureForTesting(HardwareFailurePoint point, int times)
{
    hw::setFailure(hw::FailurePoint(int(point)), times);
}

void setEmulatedHardwareForTesting(bool on) { hw::setEmulated(on); }

int openHardwareDevicesForTesting() { return hw::openDevices(); }

long hardwareDeviceUsersForTesting(const char* type) { return hw::deviceUsers(type ? type : "", ""); }

long hardwareReducedPicturesForTesting() { return hw::Session::reducedPictures(); }

void setHardwareReducingForTesting(bool on) { hw::Session::setReducing(on); }

void setHardwarePinningForTesting(bool on) { hw::setPinning(on); }

void resetHardwareStateForTesting()
{
    hw::clearFailures();
    hw::forgetFailedDevices();
    forgetLoggedHardwareCauses();
}

}  // namespace orvo
