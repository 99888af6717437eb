// Clips for the reference decoder, and what their pictures must look like once decoded.
#pragma once

#include "Common.h"
#include <fstream>

/// A clip's description. Its picture differs from itself mirrored either way and in every channel: red grows
/// to the right, green downwards, blue is a fine pattern that moves from frame to frame.
struct TestClip {
    uint32_t width = 64, height = 48;
    uint32_t maximum = 255; ///< sample value of full brightness; above 255 the samples have 16 bits
    uint32_t frames = 1;
    std::string framesPerSecond = ""; ///< as it shall stand in the comment; empty: no comment
    uint32_t orientation = 1;         ///< how the picture lies in the file, as EXIF numbers it

    bool swapsSides() const { return orientation > 4; }
};

/// A sample of the picture as it lies in the file; `channel` 0 is red, 1 green, 2 blue.
inline uint32_t testSample(const TestClip& clip, uint32_t frame, uint32_t x, uint32_t y, int channel) {
    if (channel == 0)
        return static_cast<uint32_t>(uint64_t{x} * clip.maximum / std::max(clip.width - 1, 1u));
    if (channel == 1)
        return static_cast<uint32_t>(uint64_t{y} * clip.maximum / std::max(clip.height - 1, 1u));
    return (x * 7 + y * 13 + (x * y) % 31 + frame * 29 + 5) % (clip.maximum + 1);
}

/// The header of one frame.
inline std::string testHeader(const TestClip& clip, uint32_t frame) {
    std::string header = "P6\n";
    if (frame == 0 && !clip.framesPerSecond.empty())
        header += "# fps " + clip.framesPerSecond + "\n";
    if (frame == 0 && clip.orientation != 1)
        header += "# orientation " + std::to_string(clip.orientation) + "\n";
    return header + std::to_string(clip.width) + " " + std::to_string(clip.height) + "\n" +
           std::to_string(clip.maximum) + "\n";
}

inline std::string testClipBytes(const TestClip& clip) {
    std::string bytes;
    for (uint32_t frame = 0; frame < clip.frames; ++frame) {
        bytes += testHeader(clip, frame);
        for (uint32_t y = 0; y < clip.height; ++y)
            for (uint32_t x = 0; x < clip.width; ++x)
                for (int channel = 0; channel < 3; ++channel) {
                    const uint32_t sample = testSample(clip, frame, x, y, channel);
                    if (clip.maximum > 255)
                        bytes += static_cast<char>(sample >> 8);
                    bytes += static_cast<char>(sample);
                }
    }
    return bytes;
}

inline void writeTestClip(const std::filesystem::path& path, const TestClip& clip) {
    std::ofstream(path, std::ios::binary) << testClipBytes(clip);
}

/// A side's length when decoded at 1/factor.
inline uint32_t expectedSide(uint32_t side, uint32_t factor) {
    return (side + factor - 1) / factor;
}

/// The mean sample that pixel (x, y), counted from the top left, has when decoded at 1/factor.
inline uint32_t expectedSample(const TestClip& clip, uint32_t factor, uint32_t x, uint32_t y, int channel,
                               uint32_t frame = 0) {
    uint64_t sum = 0, count = 0;
    for (uint32_t row = y * factor; row < std::min((y + 1) * factor, clip.height); ++row)
        for (uint32_t column = x * factor; column < std::min((x + 1) * factor, clip.width); ++column, ++count)
            sum += testSample(clip, frame, column, row, channel);
    return static_cast<uint32_t>((sum + count / 2) / count);
}

/// A sample scaled from 0..maximum to 0..full, to the nearest.
inline uint32_t scaledSample(uint32_t sample, uint32_t maximum, uint32_t full) {
    return static_cast<uint32_t>((uint64_t{sample} * full + maximum / 2) / maximum);
}

/// Where the pixel lies in a file of `width` x `height` that stands at (x, y) once the picture is upright.
inline std::array<uint32_t, 2> storedPlace(uint32_t orientation, uint32_t width, uint32_t height, uint32_t x,
                                           uint32_t y) {
    // The side of the upright picture on which the file's first row lies, and that of its first column.
    const char row = "?TTBBLRRL"[orientation], column = "?LRRLTTBB"[orientation];
    const auto along = [&](char side, uint32_t size) {
        const uint32_t place = side == 'L' || side == 'R' ? x : y;
        return side == 'L' || side == 'T' ? place : size - 1 - place;
    };
    return {along(column, width), along(row, height)};
}

/// The pixel (x, y), counted from the top left, of the clip decoded upright at 1/factor into blue, green, red
/// and alpha of 8 bits each.
inline std::array<uint8_t, 4> expectedPixel(const TestClip& clip, uint32_t factor, uint32_t x, uint32_t y,
                                            uint32_t frame = 0) {
    const auto [column, row] = storedPlace(clip.orientation, expectedSide(clip.width, factor),
                                           expectedSide(clip.height, factor), x, y);
    const auto value = [&](int channel) {
        return static_cast<uint8_t>(
            scaledSample(expectedSample(clip, factor, column, row, channel, frame), clip.maximum, 255));
    };
    return {value(2), value(1), value(0), 255};
}

/// All pixels of that picture, top row first.
inline std::vector<uint8_t> expectedPicture(const TestClip& clip, uint32_t factor) {
    uint32_t width = expectedSide(clip.width, factor), height = expectedSide(clip.height, factor);
    if (clip.swapsSides())
        std::swap(width, height);
    std::vector<uint8_t> pixels;
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const auto pixel = expectedPixel(clip, factor, x, y);
            pixels.insert(pixels.end(), pixel.begin(), pixel.end());
        }
    return pixels;
}
