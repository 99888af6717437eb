// Placing a frame in a picture of another size.
#pragma once

#include <cstdint>

/// The rectangle of a picture that a frame fills, in pixels.
struct brPlacement {
    uint32_t left = 0;
    uint32_t top = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// As large as fits, of the frame's aspect, in the middle; never empty. All sizes must be above 0.
brPlacement fitFrame(uint32_t frameWidth, uint32_t frameHeight, uint32_t pictureWidth,
                     uint32_t pictureHeight);

/// Scales the frame to its place in the picture; the pixels around it are not touched. Both have four 8-bit
/// channels per pixel and no padding, and rows run the same way in both. Enlarging is bilinear; shrinking
/// averages all pixels that meet in one. May throw std::bad_alloc.
void placeFrame(const uint8_t* frame, uint32_t frameWidth, uint32_t frameHeight, uint8_t* picture,
                uint32_t pictureWidth, uint32_t pictureHeight);
