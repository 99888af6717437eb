// Rows of pixels from the decoder's layouts to the final image's.
//
// Sixteen-bit final channels run from 0 to 32768: a source value is halved, and the highest becomes 32768.
// Counts are pixels unless stated; pointers need no alignment; source and destination never overlap. No
// state, no failures: any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// `valueCount` 16-bit channels, each to the range 0 to 32768.
void convertChannels16(void* to, const void* from, std::size_t valueCount) noexcept;
/// 16-bit BGRA to opaque BGRA 0 to 32768.
void convertBgra16(void* to, const void* from, std::size_t count) noexcept;
/// Float RGB to opaque float ARGB.
void convertRgbFloatToArgb(void* to, const void* from, std::size_t count) noexcept;

/// Which pixels of a source row are sampled.
struct brColumns {
    std::vector<uint32_t> offsets; ///< of each sampled pixel behind the row's start, bytes
    bool everySecond = false;      ///< they lie two pixels apart, all of them
};

/// Samples one row: as many pixels as there are columns.
using brSampleRow = void (*)(void* to, const void* from, const brColumns& columns) noexcept;
void sampleRgba8ToArgb8(void* to, const void* from, const brColumns& columns) noexcept;
void sampleRgba16ToArgb16(void* to, const void* from, const brColumns& columns) noexcept;
void sampleRgbFloatToArgb(void* to, const void* from, const brColumns& columns) noexcept;
void sampleBgra16(void* to, const void* from, const brColumns& columns) noexcept;
void sample4Bytes(void* to, const void* from, const brColumns& columns) noexcept;
void sample16Bytes(void* to, const void* from, const brColumns& columns) noexcept;
