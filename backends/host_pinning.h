#pragma once
// Download pictures page-locked ("pinned") for CUDA: a download into ordinary memory goes
// through the driver's own page-locked buffer and a CPU copy of every byte; into pinned
// memory the GPU writes it directly (DMA). Each session pins its one reused download picture
// once. The CUDA driver (libcuda) is already loaded where a cuda device opened; its
// functions are looked up once, and where they are missing nothing is pinned.
extern "C" {
#include <libavutil/buffer.h>
}

#include <cstddef>

namespace orvo::hw {

// Pins `size` bytes at `data` for the CUDA device `device` (an AVHWDeviceContext of type
// cuda); false where it cannot (the memory stays as it is, and works).
bool pinForCuda(const AVBufferRef* device, void* data, size_t size);
// Undoes pinForCuda; before the memory is freed.
void unpinForCuda(const AVBufferRef* device, void* data);
// Whether downloads are pinned at all (benchmarks compare with pageable memory). On by default.
void setPinning(bool on);
bool pinning();

}  // namespace orvo::hw
