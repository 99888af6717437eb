// Rows of pixels from the decoder's layouts to the final image's.
//
// Sixteen-bit final channels run from 0 to 32768: a source value is halved, and the highest becomes 32768.
// Counts are pixels unless stated; pointers need no alignment; source and destination never overlap. No
// state, no failures: any thread.
#pragma once

#include <cstddef>
#include <cstdint>

/// `valueCount` 16-bit channels, each to the range 0 to 32768.
void convertChannels16(void* to, const void* from, std::size_t valueCount) noexcept;
/// 16-bit BGRA to opaque BGRA 0 to 32768.
void convertBgra16(void* to, const void* from, std::size_t count) noexcept;
/// Float RGB to opaque float ARGB.
void convertRgbFloatToArgb(void* to, const void* from, std::size_t count) noexcept;

/// Samples one row: the pixel `count` times, each from `columnOffsets` bytes behind `from`.
using brSampleRow = void (*)(void* to, const void* from, const uint32_t* columnOffsets,
                             std::size_t count) noexcept;
void sampleRgba8ToArgb8(void* to, const void* from, const uint32_t* columnOffsets,
                        std::size_t count) noexcept;
void sampleRgba16ToArgb16(void* to, const void* from, const uint32_t* columnOffsets,
                          std::size_t count) noexcept;
void sampleRgbFloatToArgb(void* to, const void* from, const uint32_t* columnOffsets,
                          std::size_t count) noexcept;
void sampleBgra16(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept;
void sample4Bytes(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept;
void sample16Bytes(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept;
