#include "PixelConversions.h"

#include <bit>
#include <cstring>

namespace {
// Numbers in the callers' memory, which need not be aligned for them.
using Number16 = uint16_t __attribute__((aligned(1), may_alias));
using Number32 = uint32_t __attribute__((aligned(1), may_alias));
using Number64 = uint64_t __attribute__((aligned(1), may_alias));

constexpr uint16_t halve(uint16_t value) {
    return static_cast<uint16_t>((value >> 1) + (value == UINT16_MAX ? 1 : 0));
}

/// Four channels at once: halving rounds up exactly where all bits below the top one were set, which shows as
/// a carry into the top bit.
constexpr uint64_t halve4(uint64_t channels) {
    constexpr uint64_t lowBits = 0x0001'0001'0001'0001;
    const uint64_t halves = channels >> 1 & 0x7FFF'7FFF'7FFF'7FFF;
    return halves + ((halves + (channels & lowBits)) >> 15 & lowBits);
}

constexpr uint64_t opaque16 = 32768;
constexpr uint64_t threeChannels = 0x0000'FFFF'FFFF'FFFF;

constexpr uint64_t bgra16(uint64_t pixel) {
    return (halve4(pixel) & threeChannels) | opaque16 << 48;
}
constexpr uint64_t argb16(uint64_t rgba) {
    return halve4(rgba) << 16 | opaque16;
}
constexpr uint32_t argb8(uint32_t rgba) {
    return rgba << 8 | 255;
}

constexpr uint32_t opaqueFloat = std::bit_cast<uint32_t>(1.0f);
} // namespace

void convertChannels16(void* to, const void* from, std::size_t valueCount) noexcept {
    auto* __restrict out = static_cast<Number16*>(to);
    const auto* __restrict in = static_cast<const Number16*>(from);
    for (std::size_t i = 0; i < valueCount; ++i)
        out[i] = halve(in[i]);
}

void convertBgra16(void* to, const void* from, std::size_t count) noexcept {
    auto* __restrict out = static_cast<Number64*>(to);
    const auto* __restrict in = static_cast<const Number64*>(from);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = bgra16(in[i]);
}

void convertRgbFloatToArgb(void* to, const void* from, std::size_t count) noexcept {
    auto* __restrict out = static_cast<Number32*>(to);
    const auto* __restrict in = static_cast<const Number32*>(from);
    for (std::size_t i = 0; i < count; ++i, out += 4, in += 3) {
        out[0] = opaqueFloat;
        out[1] = in[0];
        out[2] = in[1];
        out[3] = in[2];
    }
}

namespace {
template <class Convert>
void sample(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count, Convert convert) {
    const auto* base = static_cast<const std::byte*>(from);
    for (std::size_t i = 0; i < count; ++i)
        convert(to, i, base + columnOffsets[i]);
}
} // namespace

void sampleRgba8ToArgb8(void* to, const void* from, const uint32_t* columnOffsets,
                        std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        static_cast<Number32*>(out)[i] = argb8(*reinterpret_cast<const Number32*>(pixel));
    });
}

void sampleRgba16ToArgb16(void* to, const void* from, const uint32_t* columnOffsets,
                          std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        static_cast<Number64*>(out)[i] = argb16(*reinterpret_cast<const Number64*>(pixel));
    });
}

void sampleRgbFloatToArgb(void* to, const void* from, const uint32_t* columnOffsets,
                          std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        std::byte* place = static_cast<std::byte*>(out) + i * 16;
        std::memcpy(place, &opaqueFloat, sizeof opaqueFloat);
        std::memcpy(place + sizeof opaqueFloat, pixel, 12);
    });
}

void sampleBgra16(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        static_cast<Number64*>(out)[i] = bgra16(*reinterpret_cast<const Number64*>(pixel));
    });
}

void sample4Bytes(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        std::memcpy(static_cast<std::byte*>(out) + i * 4, pixel, 4);
    });
}

void sample16Bytes(void* to, const void* from, const uint32_t* columnOffsets, std::size_t count) noexcept {
    sample(to, from, columnOffsets, count, [](void* out, std::size_t i, const std::byte* pixel) {
        std::memcpy(static_cast<std::byte*>(out) + i * 16, pixel, 16);
    });
}
