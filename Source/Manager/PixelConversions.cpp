#include "PixelConversions.h"

#include <bit>

namespace {
// Pixels and channels in the callers' memory, which need not be aligned for them.
#define IN_CALLERS_MEMORY __attribute__((packed, may_alias))
struct IN_CALLERS_MEMORY Channel16 {
    uint16_t value;
};
struct IN_CALLERS_MEMORY Pixel4 {
    uint32_t value;
};
struct IN_CALLERS_MEMORY Pixel8 {
    uint64_t value;
};
struct IN_CALLERS_MEMORY Pixel12 {
    uint32_t r, g, b;
};
struct IN_CALLERS_MEMORY Pixel16 {
    uint32_t a, b, c, d;
};
#undef IN_CALLERS_MEMORY

constexpr uint16_t halve(uint16_t value) {
    return static_cast<uint16_t>((value >> 1) + (value == UINT16_MAX ? 1 : 0));
}

/// Four channels at once. Only the highest value's half and lowest bit add up to the top bit.
constexpr uint64_t halve4(uint64_t channels) {
    constexpr uint64_t lowestBits = 0x0001'0001'0001'0001;
    const uint64_t halves = channels >> 1 & 0x7FFF'7FFF'7FFF'7FFF;
    return halves + ((halves + (channels & lowestBits)) >> 15 & lowestBits);
}

constexpr uint64_t opaque16 = 32768;
constexpr uint64_t threeChannels = 0x0000'FFFF'FFFF'FFFF;
constexpr uint32_t opaqueFloat = std::bit_cast<uint32_t>(1.0f);

constexpr Pixel4 argb8(Pixel4 rgba) {
    return {rgba.value << 8 | 255};
}
constexpr Pixel8 bgra16(Pixel8 pixel) {
    return {(halve4(pixel.value) & threeChannels) | opaque16 << 48};
}
constexpr Pixel8 argb16(Pixel8 rgba) {
    return {halve4(rgba.value) << 16 | opaque16};
}
constexpr Pixel16 argbFloat(Pixel12 rgb) {
    return {opaqueFloat, rgb.r, rgb.g, rgb.b};
}
constexpr Pixel4 same4(Pixel4 pixel) {
    return pixel;
}
constexpr Pixel16 same16(Pixel16 pixel) {
    return pixel;
}

template <auto convert, class Final, class Source>
void convertRow(void* to, const void* from, std::size_t count, std::size_t step, Final (*)(Source)) noexcept {
    auto* __restrict out = static_cast<Final*>(to);
    const auto* __restrict in = static_cast<const Source*>(from);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = convert(in[i * step]);
}

template <auto convert, class Final, class Source>
void sampleRow(void* to, const void* from, const brColumns& columns, Final (*)(Source)) noexcept {
    const auto* base = static_cast<const std::byte*>(from);
    const uint32_t* offsets = columns.offsets.data();
    const std::size_t count = columns.offsets.size();
    auto* __restrict out = static_cast<Final*>(to);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = convert(*reinterpret_cast<const Source*>(base + offsets[i]));
}

template <auto convert>
void sample(void* to, const void* from, const brColumns& columns) noexcept {
    if (columns.everySecond)
        convertRow<convert>(to, static_cast<const std::byte*>(from) + columns.offsets.front(),
                            columns.offsets.size(), 2, convert);
    else
        sampleRow<convert>(to, from, columns, convert);
}
} // namespace

void convertChannels16(void* to, const void* from, std::size_t valueCount) noexcept {
    auto* __restrict out = static_cast<Channel16*>(to);
    const auto* __restrict in = static_cast<const Channel16*>(from);
    for (std::size_t i = 0; i < valueCount; ++i)
        out[i].value = halve(in[i].value);
}

void convertBgra16(void* to, const void* from, std::size_t count) noexcept {
    convertRow<bgra16>(to, from, count, 1, bgra16);
}

void convertRgbFloatToArgb(void* to, const void* from, std::size_t count) noexcept {
    convertRow<argbFloat>(to, from, count, 1, argbFloat);
}

void sampleRgba8ToArgb8(void* to, const void* from, const brColumns& columns) noexcept {
    sample<argb8>(to, from, columns);
}

void sampleRgba16ToArgb16(void* to, const void* from, const brColumns& columns) noexcept {
    sample<argb16>(to, from, columns);
}

void sampleRgbFloatToArgb(void* to, const void* from, const brColumns& columns) noexcept {
    sample<argbFloat>(to, from, columns);
}

void sampleBgra16(void* to, const void* from, const brColumns& columns) noexcept {
    sample<bgra16>(to, from, columns);
}

void sample4Bytes(void* to, const void* from, const brColumns& columns) noexcept {
    sample<same4>(to, from, columns);
}

void sample16Bytes(void* to, const void* from, const brColumns& columns) noexcept {
    sample<same16>(to, from, columns);
}
