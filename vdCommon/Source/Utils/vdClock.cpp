#include "Utils/vdClock.h"

#include <windows.h>

int64_t monotonicNanoseconds() noexcept {
    LARGE_INTEGER frequency;
    LARGE_INTEGER counter;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&counter);
    return ticksToNanoseconds(counter.QuadPart, frequency.QuadPart);
}
