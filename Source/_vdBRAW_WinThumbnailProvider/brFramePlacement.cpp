#include "brFramePlacement.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace {
constexpr size_t channels = 4;
/// Weights are fixed-point numbers that add up to exactly 1, so that an even area keeps its value.
constexpr int weightBits = 14;
constexpr uint32_t weightOne = 1u << weightBits;
/// What is kept of a column's sum, so that it can be weighed again within 32 bits.
constexpr int columnBits = 8;

/// Which source pixels make up each destination pixel along one axis.
class Taps {
public:
    Taps(uint32_t sourceSize, uint32_t size);

    struct Pixel {
        size_t first; ///< source pixel of the first weight
        size_t count;
        const uint32_t* weights; ///< `count` of them
    };
    Pixel operator[](size_t pixel) const {
        return {m_first[pixel], m_begin[pixel + 1] - m_begin[pixel], m_weights.data() + m_begin[pixel]};
    }

private:
    void append(double centre, double reach, uint32_t sourceSize);

    std::vector<double> m_scratch; ///< weights of the pixel being worked out
    std::vector<size_t> m_first;
    std::vector<size_t> m_begin; ///< into m_weights, with one more at the end
    std::vector<uint32_t> m_weights;
};

/// A tent as wide as one source pixel to each side when enlarging, one destination pixel when shrinking.
Taps::Taps(uint32_t sourceSize, uint32_t size) {
    const double scale = static_cast<double>(sourceSize) / size;
    m_first.reserve(size);
    m_begin.reserve(size + size_t{1});
    m_begin.push_back(0);
    for (uint32_t pixel = 0; pixel < size; ++pixel)
        append((pixel + 0.5) * scale - 0.5, std::max(scale, 1.0), sourceSize);
}

void Taps::append(double centre, double reach, uint32_t sourceSize) {
    // Beyond the frame's edge its last pixel goes on, so an edge pixel collects the weights from there.
    const auto clamped = [&](double position) {
        return static_cast<size_t>(std::clamp(position, 0.0, static_cast<double>(sourceSize - 1)));
    };
    const double from = std::floor(centre - reach) + 1;
    const double to = std::ceil(centre + reach) - 1;
    const size_t first = clamped(from);
    m_scratch.assign(clamped(to) - first + 1, 0.0);
    double sum = 0;
    const auto steps = static_cast<int64_t>(to - from);
    for (int64_t step = 0; step <= steps; ++step) {
        const double position = from + static_cast<double>(step);
        const double weight = 1 - std::abs(position - centre) / reach;
        m_scratch[clamped(position) - first] += weight;
        sum += weight;
    }
    // Each weight is what the rounded running sum grows by: the total is exact, and no weight is off by one.
    double running = 0;
    uint32_t given = 0;
    for (const double weight : m_scratch) {
        running += weight;
        const auto upToHere = static_cast<uint32_t>(std::lround(running / sum * weightOne));
        m_weights.push_back(upToHere - given);
        given = upToHere;
    }
    m_first.push_back(first);
    m_begin.push_back(m_weights.size());
}

/// The weighted sum of whole source rows, `count` channel values each.
void blendRows(const uint8_t* frame, size_t count, const Taps::Pixel& rows, uint32_t* sums) {
    for (size_t tap = 0; tap < rows.count; ++tap) {
        const uint8_t* const row = frame + (rows.first + tap) * count;
        const uint32_t weight = rows.weights[tap];
        if (tap == 0)
            for (size_t i = 0; i < count; ++i)
                sums[i] = weight * row[i];
        else
            for (size_t i = 0; i < count; ++i)
                sums[i] += weight * row[i];
    }
}

void blendColumns(const uint32_t* sums, const Taps& columns, uint32_t width, uint8_t* destination) {
    constexpr int kept = weightBits - columnBits;
    constexpr int shift = weightBits + columnBits;
    for (size_t x = 0; x < width; ++x) {
        const Taps::Pixel taps = columns[x];
        uint32_t pixel[channels] = {};
        for (size_t tap = 0; tap < taps.count; ++tap)
            for (size_t channel = 0; channel < channels; ++channel)
                pixel[channel] += taps.weights[tap] * (sums[(taps.first + tap) * channels + channel] >> kept);
        for (size_t channel = 0; channel < channels; ++channel)
            destination[x * channels + channel] =
                static_cast<uint8_t>((pixel[channel] + (1u << (shift - 1))) >> shift);
    }
}
} // namespace

brPlacement fitFrame(uint32_t frameWidth, uint32_t frameHeight, uint32_t pictureWidth,
                     uint32_t pictureHeight) {
    const auto scaled = [](uint64_t side, uint64_t to, uint64_t from) {
        return static_cast<uint32_t>(std::max<uint64_t>(1, (side * to + from / 2) / from));
    };
    brPlacement place{0, 0, pictureWidth, pictureHeight};
    if (uint64_t{pictureWidth} * frameHeight <= uint64_t{pictureHeight} * frameWidth)
        place.height = scaled(frameHeight, pictureWidth, frameWidth);
    else
        place.width = scaled(frameWidth, pictureHeight, frameHeight);
    place.left = (pictureWidth - place.width) / 2;
    place.top = (pictureHeight - place.height) / 2;
    return place;
}

void placeFrame(const uint8_t* frame, uint32_t frameWidth, uint32_t frameHeight, uint8_t* picture,
                uint32_t pictureWidth, uint32_t pictureHeight) {
    const brPlacement place = fitFrame(frameWidth, frameHeight, pictureWidth, pictureHeight);
    const Taps columns(frameWidth, place.width);
    const Taps rows(frameHeight, place.height);
    std::vector<uint32_t> sums(frameWidth * channels);
    for (size_t y = 0; y < place.height; ++y) {
        blendRows(frame, sums.size(), rows[y], sums.data());
        uint8_t* const row = picture + ((place.top + y) * pictureWidth + place.left) * channels;
        blendColumns(sums.data(), columns, place.width, row);
    }
}
