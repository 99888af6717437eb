// What the decode and the process job do to pixels.
//
// A decoded picture is what lies between the two: red, green and blue interleaved, without padding, each
// sample one byte where the clip's maximum is at most 255, else 16 bits in the machine's order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace reference {

/// A side's length at 1/factor: rounded up, so that no pixel is lost and nothing vanishes.
constexpr uint32_t reducedSide(uint32_t side, uint32_t factor) {
    return (side + factor - 1) / factor;
}

/// How the pictures of a clip are turned, and in which order their rows are given.
struct Turning {
    uint32_t orientation = 1; ///< as EXIF numbers them; the result is upright
    bool bottomRowFirst = false;

    bool swapsSides() const { return orientation > 4; }
};

/// Turns a decoded picture, then orders its rows.
void turnPicture(const void* source, uint32_t width, uint32_t height, uint32_t bytesPerPixel, Turning turning,
                 void* turned);

/// The decode job: each pixel of the result is the mean of the factor x factor pixels that it stands for
/// (fewer at the right and bottom edge of sizes that don't divide), rounded half up in the clip's own units.
/// `source` are a P6 picture's samples, top row first; factor is 1, 2, 4 or 8.
void reducePicture(const uint8_t* source, uint32_t width, uint32_t height, uint32_t bytesPerSample,
                   uint32_t factor, bool bottomRowFirst, void* decoded);

/// The process job into one resource format: samples scaled from 0..maximum to the format's full range
/// (floats: 0 to 1), rounded to nearest; alpha opaque. Rows follow each other without padding.
struct ResourceLayout {
    uint32_t format;
    uint32_t bytesPerPixel;
    void (*convert8)(const void* decoded, size_t pixels, uint32_t maximum, void* processed);
    void (*convert16)(const void* decoded, size_t pixels, uint32_t maximum, void* processed);
};

/// Null for a format that the library doesn't have.
const ResourceLayout* findResourceLayout(uint32_t format);

} // namespace reference
