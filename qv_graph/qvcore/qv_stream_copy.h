// Copies of whole pictures that nobody on this thread reads again soon: into a
// FIFO slot that is played out a latency later, or into a device buffer that
// only the board reads. Non-temporal stores skip the read-for-ownership of
// every destination line and leave the caches to the threads that need them.
#pragma once

#include <cstddef>

namespace QVSDK {

// Below this a plain copy is as fast and keeps the data cached.
constexpr size_t kStreamCopyMinBytes = size_t(1) << 20;

// Copies n bytes; src and dst must not overlap. Large enough blocks bypass the
// caches where the processor can; call stream_fence() once after a run of
// copies, before the data is handed to another thread or to the device.
void stream_copy(void* dst, const void* src, size_t n);
void stream_fence();

} // namespace QVSDK
