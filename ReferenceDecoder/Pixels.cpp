#include "Pixels.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include <BlackmagicRawAPI.h>

namespace reference {

namespace {

/// Samples as the file has them: bytes, or 16 bits with the high byte first.
struct FileSamples8 {
    using Decoded = uint8_t;
    using Sum = uint16_t; // holds 8 rows of 255
    static constexpr size_t bytes = 1;
    static Decoded get(const uint8_t* row, size_t i) { return row[i]; }
};
struct FileSamples16 {
    using Decoded = uint16_t;
    using Sum = uint32_t;
    static constexpr size_t bytes = 2;
    static Decoded get(const uint8_t* row, size_t i) {
        uint16_t value;
        std::memcpy(&value, row + 2 * i, 2);
        return static_cast<Decoded>(value << 8 | value >> 8);
    }
};

/// Adds up `rows` rows of samples, column by column.
template <class File, unsigned rows>
void sumFullRows(const uint8_t* __restrict source, size_t stride, size_t samples,
                 typename File::Sum* __restrict sums) {
    for (size_t i = 0; i < samples; ++i) {
        typename File::Sum sum = 0;
        for (unsigned row = 0; row < rows; ++row)
            sum = static_cast<typename File::Sum>(sum + File::get(source + row * stride, i));
        sums[i] = sum;
    }
}

template <class File>
void sumSomeRows(const uint8_t* source, size_t stride, size_t samples, unsigned rows,
                 typename File::Sum* sums) {
    sumFullRows<File, 1>(source, stride, samples, sums);
    for (unsigned row = 1; row < rows; ++row)
        for (size_t i = 0; i < samples; ++i)
            sums[i] = static_cast<typename File::Sum>(sums[i] + File::get(source + row * stride, i));
}

/// Adds up the pixels of each cell of a row of column sums and divides. `full` is a whole cell's pixel count.
template <class File, unsigned factor>
void meanOfCells(const typename File::Sum* __restrict sums, size_t cells,
                 typename File::Decoded* __restrict out) {
    constexpr uint32_t full = factor * factor;
    for (size_t cell = 0; cell < cells; ++cell) {
        uint32_t red = full / 2, green = full / 2, blue = full / 2;
        for (size_t i = 0; i < factor; ++i) {
            red += sums[3 * i];
            green += sums[3 * i + 1];
            blue += sums[3 * i + 2];
        }
        out[0] = static_cast<typename File::Decoded>(red / full);
        out[1] = static_cast<typename File::Decoded>(green / full);
        out[2] = static_cast<typename File::Decoded>(blue / full);
        sums += 3 * factor;
        out += 3;
    }
}

/// One cell of any width and any pixel count: the cells at the edges.
template <class File>
void meanOfCell(const typename File::Sum* sums, unsigned columns, unsigned rows,
                typename File::Decoded* out) {
    const uint32_t pixels = columns * rows;
    for (size_t channel = 0; channel < 3; ++channel) {
        uint32_t sum = pixels / 2;
        for (size_t i = 0; i < columns; ++i)
            sum += sums[3 * i + channel];
        out[channel] = static_cast<typename File::Decoded>(sum / pixels);
    }
}

template <class File, unsigned factor>
void reduce(const uint8_t* source, uint32_t width, uint32_t height, bool bottomRowFirst, void* decoded) {
    const size_t samples = size_t{width} * 3;
    const size_t stride = samples * File::bytes;
    const uint32_t outWidth = reducedSide(width, factor), outHeight = reducedSide(height, factor);
    const uint32_t wholeCells = width / factor;
    std::vector<typename File::Sum> sums(samples);
    for (uint32_t y = 0; y < outHeight; ++y) {
        const uint8_t* rows = source + size_t{y} * factor * stride;
        auto* out = static_cast<typename File::Decoded*>(decoded) +
                    size_t{bottomRowFirst ? outHeight - 1 - y : y} * outWidth * 3;
        const unsigned rowCount = std::min(factor, height - y * factor);
        if (rowCount == factor) {
            sumFullRows<File, factor>(rows, stride, samples, sums.data());
            meanOfCells<File, factor>(sums.data(), wholeCells, out);
        } else {
            sumSomeRows<File>(rows, stride, samples, rowCount, sums.data());
            for (uint32_t x = 0; x < wholeCells; ++x)
                meanOfCell<File>(sums.data() + size_t{x} * factor * 3, factor, rowCount, out + size_t{x} * 3);
        }
        if (wholeCells < outWidth)
            meanOfCell<File>(sums.data() + size_t{wholeCells} * factor * 3, width - wholeCells * factor,
                             rowCount, out + size_t{wholeCells} * 3);
    }
}

/// Full scale: nothing to add up.
template <class File>
void copyRows(const uint8_t* source, uint32_t width, uint32_t height, bool bottomRowFirst, void* decoded) {
    const size_t samples = size_t{width} * 3;
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t* __restrict row = source + y * samples * File::bytes;
        auto* __restrict out =
            static_cast<typename File::Decoded*>(decoded) + (bottomRowFirst ? height - 1 - y : y) * samples;
        for (size_t i = 0; i < samples; ++i)
            out[i] = File::get(row, i);
    }
}

template <class File>
void reduceBy(const uint8_t* source, uint32_t width, uint32_t height, uint32_t factor, bool bottomRowFirst,
              void* decoded) {
    switch (factor) {
    case 2:
        return reduce<File, 2>(source, width, height, bottomRowFirst, decoded);
    case 4:
        return reduce<File, 4>(source, width, height, bottomRowFirst, decoded);
    case 8:
        return reduce<File, 8>(source, width, height, bottomRowFirst, decoded);
    default:
        return copyRows<File>(source, width, height, bottomRowFirst, decoded);
    }
}

/// Where a pixel's channels lie among its samples; alpha -1 where there is none.
struct ChannelOrder {
    int red, green, blue, alpha;
    bool isPlanar = false;
};
constexpr ChannelOrder kRGBA{0, 1, 2, 3}, kBGRA{2, 1, 0, 3}, kRGB{0, 1, 2, -1}, kPlanes{0, 1, 2, -1, true};

template <class Target>
Target scaled(uint32_t value, uint32_t maximum) {
    if constexpr (std::is_floating_point_v<Target>)
        return static_cast<Target>(value) / static_cast<Target>(maximum);
    else
        return static_cast<Target>((value * uint32_t{std::numeric_limits<Target>::max()} + maximum / 2) /
                                   maximum);
}

/// What each sample value becomes. Values over the maximum, which a broken file may have, count as it.
template <class Sample, class Target>
std::vector<Target> conversionTable(uint32_t maximum) {
    std::vector<Target> table(size_t{std::numeric_limits<Sample>::max()} + 1);
    for (uint32_t value = 0; value < table.size(); ++value)
        table[value] = value < maximum ? scaled<Target>(value, maximum) : scaled<Target>(1, 1);
    return table;
}

template <class Sample, class Target, ChannelOrder order>
void convert(const void* decoded, size_t pixels, uint32_t maximum, void* processed) {
    const std::vector<Target> values = conversionTable<Sample, Target>(maximum);
    const Target* __restrict table = values.data();
    const auto* __restrict source = static_cast<const Sample*>(decoded);
    auto* __restrict target = static_cast<Target*>(processed);
    constexpr size_t step = order.isPlanar ? 1 : order.alpha < 0 ? 3 : 4;
    const size_t spacing = order.isPlanar ? pixels : 1;
    Target* __restrict red = target + order.red * spacing;
    Target* __restrict green = target + order.green * spacing;
    Target* __restrict blue = target + order.blue * spacing;
    for (size_t i = 0; i < pixels; ++i) {
        red[i * step] = table[source[3 * i]];
        green[i * step] = table[source[3 * i + 1]];
        blue[i * step] = table[source[3 * i + 2]];
        if constexpr (order.alpha >= 0)
            target[i * step + order.alpha] = scaled<Target>(1, 1);
    }
}

template <class Target, ChannelOrder order>
constexpr ResourceLayout layout(uint32_t format) {
    constexpr uint32_t channels = order.alpha < 0 ? 3 : 4;
    return {format, channels * sizeof(Target), convert<uint8_t, Target, order>,
            convert<uint16_t, Target, order>};
}

constexpr ResourceLayout kLayouts[] = {
    layout<uint8_t, kRGBA>(blackmagicRawResourceFormatRGBAU8),
    layout<uint8_t, kBGRA>(blackmagicRawResourceFormatBGRAU8),
    layout<uint16_t, kRGBA>(blackmagicRawResourceFormatRGBAU16),
    layout<uint16_t, kBGRA>(blackmagicRawResourceFormatBGRAU16),
    layout<uint16_t, kRGB>(blackmagicRawResourceFormatRGBU16),
    layout<uint16_t, kPlanes>(blackmagicRawResourceFormatRGBU16Planar),
    layout<float, kRGB>(blackmagicRawResourceFormatRGBF32),
    layout<float, kPlanes>(blackmagicRawResourceFormatRGBF32Planar),
    layout<float, kBGRA>(blackmagicRawResourceFormatBGRAF32),
};

} // namespace

void reducePicture(const uint8_t* source, uint32_t width, uint32_t height, uint32_t bytesPerSample,
                   uint32_t factor, bool bottomRowFirst, void* decoded) {
    if (bytesPerSample == 1)
        reduceBy<FileSamples8>(source, width, height, factor, bottomRowFirst, decoded);
    else
        reduceBy<FileSamples16>(source, width, height, factor, bottomRowFirst, decoded);
}

void turnPicture(const void* source, uint32_t width, uint32_t height, uint32_t bytesPerPixel, Turning turning,
                 void* turned) {
    /// From the result back to the source: sides swapped first, then each of the source's axes mirrored.
    struct Steps {
        bool isSwapped, mirrorsX, mirrorsY;
    };
    constexpr Steps steps[] = {{false, false, false}, {false, true, false}, {false, true, true},
                               {false, false, true},  {true, false, false}, {true, false, true},
                               {true, true, true},    {true, true, false}};
    const Steps& step = steps[turning.orientation - 1];
    const uint32_t outWidth = step.isSwapped ? height : width, outHeight = step.isSwapped ? width : height;
    auto* out = static_cast<uint8_t*>(turned);
    for (uint32_t row = 0; row < outHeight; ++row) {
        const uint32_t upright = turning.bottomRowFirst ? outHeight - 1 - row : row;
        for (uint32_t column = 0; column < outWidth; ++column, out += bytesPerPixel) {
            uint32_t x = step.isSwapped ? upright : column, y = step.isSwapped ? column : upright;
            x = step.mirrorsX ? width - 1 - x : x;
            y = step.mirrorsY ? height - 1 - y : y;
            std::memcpy(out, static_cast<const uint8_t*>(source) + (size_t{y} * width + x) * bytesPerPixel,
                        bytesPerPixel);
        }
    }
}

const ResourceLayout* findResourceLayout(uint32_t format) {
    for (const ResourceLayout& layout : kLayouts)
        if (layout.format == format)
            return &layout;
    return nullptr;
}

} // namespace reference
