// The monotonic high-resolution clock.
#pragma once

#include <cstdint>

/// Nanoseconds since an arbitrary start; never runs backwards. Any thread.
int64_t monotonicNanoseconds() noexcept;
