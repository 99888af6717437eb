// What the handler that stands in the real one's place tells about the process it is in.
#pragma once

#include <cstdint>

/// The first pixels of the picture of a clip called "facts".
struct WorkerFacts {
    uint32_t errorMode;
    uint32_t hasCrashFilter;
    uint32_t isInOwnFolder; ///< the process's current folder is the handler's
    uint32_t processId;
};

/// Any other clip's picture: `size` wide and half as high, and these bytes; zeros in sizes above this one.
constexpr uint32_t standInFilled = 4000;
constexpr uint8_t standInByte(uint32_t size, uint32_t place) {
    return static_cast<uint8_t>((size * 31 + place * 7 + place / 251) & 0xFF);
}
