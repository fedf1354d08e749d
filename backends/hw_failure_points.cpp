#include "backends/hw_failure_points.h"

#include <atomic>

namespace orvo::hw {
namespace {

std::atomic<int> remaining[int(FailurePoint::Count)];
std::atomic<bool> emulation{false};

}  // namespace

void setFailure(FailurePoint point, int times) { remaining[int(point)].store(times); }

bool shouldFail(FailurePoint point)
{
    std::atomic<int>& left = remaining[int(point)];
    int n = left.load();
    while (n != 0) {
        if (n < 0)
            return true;
        if (left.compare_exchange_weak(n, n - 1))
            return true;
    }
    return false;
}

void clearFailures()
{
    for (std::atomic<int>& r : remaining)
        r.store(0);
}

void setEmulated(bool on) { emulation.store(on); }
bool emulated() { return emulation.load(); }

}  // namespace orvo::hw
