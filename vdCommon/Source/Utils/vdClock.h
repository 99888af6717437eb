// The monotonic high-resolution clock.
#pragma once

#include <cstdint>

/// Nanoseconds since an arbitrary start; never runs backwards. Any thread.
int64_t monotonicNanoseconds() noexcept;

/// `ticks` of a clock that ticks `frequency` times a second. Split so that the product stays within 64 bits
/// for centuries; the usual frequency needs no division.
constexpr int64_t ticksToNanoseconds(int64_t ticks, int64_t frequency) noexcept {
    constexpr int64_t usualFrequency = 10'000'000;
    constexpr int64_t second = 1'000'000'000;
    if (frequency == usualFrequency)
        return ticks * 100;
    return ticks / frequency * second + ticks % frequency * second / frequency;
}
