// Every conversion into the final image against a plain one written here, pixel by pixel.
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CudaRuntime.h"
#include "EnvironmentVariable.h"
#include "FreshProcess.h"
#include "LogSession.h"
#include "Request.h"

namespace {
using Bytes = std::vector<uint8_t>;

enum class Pixel { copy4, copy16, rgba8ToArgb8, bgra16, rgba16ToArgb16, rgbFloatToArgb };
enum class Walk { whole, flipped, region, downscale };

struct Conversion {
    uint32_t code;
    Pixel pixel;
    Walk walk;
};

constexpr Conversion conversions[] = {
    {1, Pixel::copy4, Walk::whole},
    {2, Pixel::rgba8ToArgb8, Walk::flipped},
    {4, Pixel::bgra16, Walk::whole},
    {7, Pixel::copy16, Walk::region},
    {9, Pixel::rgba8ToArgb8, Walk::downscale},
    {10, Pixel::rgba16ToArgb16, Walk::downscale},
    {11, Pixel::rgbFloatToArgb, Walk::downscale},
    {12, Pixel::rgba8ToArgb8, Walk::region},
    {13, Pixel::rgba16ToArgb16, Walk::region},
    {14, Pixel::rgbFloatToArgb, Walk::region},
    {15, Pixel::copy4, Walk::downscale},
    {16, Pixel::bgra16, Walk::downscale},
    {17, Pixel::copy16, Walk::downscale},
    {21, Pixel::copy4, Walk::whole},
    {22, Pixel::copy4, Walk::downscale},
};

uint32_t sourceBytes(Pixel pixel) {
    constexpr uint32_t bytes[] = {4, 16, 4, 8, 8, 12};
    return bytes[static_cast<size_t>(pixel)];
}
uint32_t finalBytes(Pixel pixel) {
    constexpr uint32_t bytes[] = {4, 16, 4, 8, 8, 16};
    return bytes[static_cast<size_t>(pixel)];
}

void convert(Pixel pixel, uint8_t* to, const uint8_t* from) {
    std::array<uint16_t, 4> in{};
    std::array<uint16_t, 4> out{};
    constexpr float one = 1;
    switch (pixel) {
    case Pixel::copy4:
    case Pixel::copy16:
        std::memcpy(to, from, finalBytes(pixel));
        return;
    case Pixel::rgba8ToArgb8:
        to[0] = 255;
        std::memcpy(to + 1, from, 3);
        return;
    case Pixel::rgbFloatToArgb:
        std::memcpy(to, &one, 4);
        std::memcpy(to + 4, from, 12);
        return;
    case Pixel::bgra16:
    case Pixel::rgba16ToArgb16:
        std::memcpy(in.data(), from, 8);
        for (size_t i = 0; i < 4; ++i)
            out[i] = static_cast<uint16_t>(in[i] == 65535 ? 32768 : in[i] / 2);
        out[3] = 32768;
        if (pixel == Pixel::rgba16ToArgb16)
            out = {32768, out[0], out[1], out[2]};
        std::memcpy(to, out.data(), 8);
    }
}

/// Sizes in pixels. `padding` is added to a final row, in pixels; a negative one cuts it short.
struct Geometry {
    const char* what;
    uint32_t processedWidth, processedHeight;
    uint32_t width, height;
    brRect rect;
    int padding;
    bool negative;
    float scale = 2;
};

constexpr Geometry geometries[] = {
    {"matching", 16, 6, 16, 6, {0, 0, 16, 6}, 0, false},
    {"matching, upwards", 16, 6, 16, 6, {0, 0, 16, 6}, 0, true},
    {"padded", 16, 6, 16, 6, {0, 0, 16, 6}, 4, false},
    {"padded, upwards", 16, 6, 16, 6, {0, 0, 16, 6}, 4, true},
    {"one pixel", 1, 1, 1, 1, {0, 0, 1, 1}, 0, false},
    {"odd", 37, 7, 37, 7, {0, 0, 37, 7}, 1, true},
    {"at the left edge", 19, 9, 5, 9, {0, 0, 5, 9}, 0, false},
    {"at the right edge", 19, 9, 5, 9, {14, 0, 19, 9}, 0, true},
    {"at the top edge", 19, 9, 19, 2, {0, 0, 19, 2}, 0, false},
    {"at the bottom edge", 19, 9, 19, 2, {0, 7, 19, 9}, 0, true},
    {"inside", 19, 9, 7, 3, {6, 4, 13, 7}, 3, false},
    {"over the lower right edge", 19, 9, 10, 8, {15, 6, 25, 14}, 0, false},
    {"right of the picture", 19, 9, 4, 4, {19, 0, 23, 4}, 0, false},
    {"left of the picture", 19, 9, 4, 4, {-1, 0, 3, 4}, 0, false},
    {"above the picture", 19, 9, 4, 4, {0, -1, 4, 3}, 0, true},
    {"final image larger", 8, 5, 11, 9, {0, 0, 11, 9}, 0, false, 0.5f},
    {"final image smaller", 23, 11, 8, 4, {0, 0, 8, 4}, 0, true, 2.7f},
    {"rows too short", 16, 6, 16, 6, {0, 0, 16, 6}, -3, false},
    {"rows too short, upwards", 16, 6, 16, 6, {0, 0, 16, 6}, -3, true, 1e30f},
    {"backwards scale", 16, 6, 16, 6, {0, 0, 16, 6}, 0, false, -3},
};

int64_t sampled(float start, uint32_t steps, float scale, uint32_t count) {
    float position = start * scale;
    for (uint32_t i = 0; i < steps; ++i)
        position += scale;
    const double index = std::floor(static_cast<double>(position));
    return static_cast<int64_t>(std::clamp(index, 0.0, static_cast<double>(count) - 1));
}

class TestRequest : public vdBRAW_Request {
public:
    void onFinished() override { ++m_ends; }
    int m_ends = 0;
};

/// One delivery: a source of random but opaque pixels, and a final image inside a larger buffer, which shows
/// every byte that should not have been written.
class Setting {
public:
    Setting(const Conversion& conversion, const Geometry& geometry, bool gpu)
        : m_conversion(conversion), m_geometry(geometry),
          m_rowBytes((static_cast<int>(geometry.width) + geometry.padding) *
                     static_cast<int>(finalBytes(conversion.pixel))),
          m_source(size_t{geometry.processedWidth} * geometry.processedHeight *
                   sourceBytes(conversion.pixel)),
          m_final(guard + static_cast<size_t>(m_rowBytes) * geometry.height + guard, 0xAB) {
        fillSource();
        auto buffers = std::make_unique<brBufferManager>(
            nullptr, nullptr, nullptr, blackmagicRawResourceTypeBufferCPU, nullptr, nullptr);
        buffers->m_isGPU = gpu;
        if (gpu)
            buffers->m_resourceType = blackmagicRawResourceTypeBufferCUDA;
        buffers->m_processedBuffer.resource = m_source.data();
        buffers->m_processedBuffer.capacity = static_cast<uint32_t>(m_source.size());
        buffers->m_finalImageBuffer =
            m_final.data() + guard +
            (geometry.negative ? static_cast<size_t>(m_rowBytes) * (geometry.height - 1) : 0);
        request.m_bufferManager = std::move(buffers);
        request.m_pxlConvAlgo = conversion.code;
        request.m_rowBytes = geometry.negative ? -m_rowBytes : m_rowBytes;
        request.m_width = geometry.width;
        request.m_height = geometry.height;
        request.m_renderRect = geometry.rect;
        request.m_resourceBytesPerPixel = static_cast<uint8_t>(sourceBytes(conversion.pixel));
        request.m_processedWidth = geometry.processedWidth;
        request.m_processedHeight = geometry.processedHeight;
        request.m_downscaleX = request.m_downscaleY = geometry.scale;
    }
    ~Setting() {
        // The source is ours, not the decoder's.
        request.m_bufferManager->m_processedBuffer = {};
    }

    Bytes expected() const {
        Bytes image(m_final.size(), 0xAB);
        const auto& g = m_geometry;
        const uint32_t held = static_cast<uint32_t>(m_rowBytes) / finalBytes(m_conversion.pixel);
        const bool everywhere = m_conversion.walk == Walk::downscale;
        const bool region = m_conversion.walk == Walk::region;
        const bool upwards = g.negative && !everywhere && !region; // stored from the last row on
        for (uint32_t y = 0; y < g.height; ++y)
            for (uint32_t x = 0; x < (region || everywhere ? std::min(g.width, held) : held); ++x) {
                int64_t row = y;
                int64_t column = x;
                if (m_conversion.walk == Walk::flipped)
                    row = int64_t{g.processedHeight} - 1 - y;
                if (region) {
                    row += g.rect.top;
                    column += g.rect.left;
                    if (g.rect.top < 0 || g.rect.left < 0)
                        continue;
                }
                if (everywhere) {
                    row = sampled(static_cast<float>(g.rect.top), y, g.scale, g.processedHeight);
                    column = sampled(static_cast<float>(g.rect.left), x, g.scale, g.processedWidth);
                }
                if (row < 0 || row >= g.processedHeight || column < 0 || column >= g.processedWidth)
                    continue;
                const uint32_t finalRow = upwards ? g.height - 1 - y : y;
                convert(
                    m_conversion.pixel,
                    &image[guard + finalRow * static_cast<size_t>(m_rowBytes) +
                           x * finalBytes(m_conversion.pixel)],
                    &m_source[(static_cast<size_t>(row) * g.processedWidth + static_cast<size_t>(column)) *
                              sourceBytes(m_conversion.pixel)]);
            }
        return image;
    }
    const Bytes& delivered() const { return m_final; }
    bool isUntouched() const { return m_final == Bytes(m_final.size(), 0xAB); }

    TestRequest request;

private:
    static constexpr size_t guard = 256;

    void fillSource() {
        std::mt19937 random(m_geometry.processedWidth);
        for (uint8_t& byte : m_source)
            byte = static_cast<uint8_t>(random());
        const bool wide = sourceBytes(m_conversion.pixel) == 8;
        // Opaque, since some conversions carry a pixel's alpha over to its neighbour; and with both ends of
        // the 16-bit range in it.
        for (size_t i = 0; i + 4 <= m_source.size() && sourceBytes(m_conversion.pixel) <= 8;
             i += wide ? 8 : 4)
            std::memset(&m_source[i + (wide ? 6 : 3)], 255, wide ? 2 : 1);
        constexpr uint16_t ends[] = {65535, 65534, 1};
        if (wide)
            std::memcpy(m_source.data(), ends, sizeof ends);
    }

    Conversion m_conversion;
    Geometry m_geometry;
    int m_rowBytes;
    Bytes m_source;
    Bytes m_final;
};

/// Calls the stand-in runtime's own controls.
template <class Function>
Function* standIn(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA(cudaRuntimeFile), name)));
}

class PixelConversionsTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const EnvironmentVariable path(L"PATH",
                                       std::filesystem::path(CUDA_RUNTIME_FOLDER).make_preferred().c_str());
        std::string message;
        ASSERT_TRUE(loadCudaRuntime(message)) << message;
    }
};

TEST_F(PixelConversionsTest, EveryConversionEqualsThePlainOne) {
    for (const Conversion& conversion : conversions)
        for (const Geometry& geometry : geometries)
            for (const bool gpu : {false, true}) {
                Setting setting(conversion, geometry, gpu);
                EXPECT_EQ(setting.request.LaunchHeavyProcessing(), 0);
                EXPECT_TRUE(setting.delivered() == setting.expected())
                    << "code " << conversion.code << ", " << geometry.what << (gpu ? ", GPU" : ", CPU");
                EXPECT_EQ(setting.request.m_errorCode, 0u);
            }
}

// A processed buffer that holds less than the image's size says must not be read beyond its end.
TEST_F(PixelConversionsTest, ShortSourceIsNotReadBeyondItsEnd) {
    for (const Conversion& conversion : conversions) {
        const Geometry& geometry = geometries[0];
        Setting setting(conversion, geometry, false);
        auto& buffer = setting.request.m_bufferManager->m_processedBuffer;
        const uint32_t rowBytes = geometry.processedWidth * sourceBytes(conversion.pixel);
        const auto page =
            std::unique_ptr<void, void (*)(void*)>(VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_READWRITE),
                                                   [](void* p) { VirtualFree(p, 0, MEM_RELEASE); });
        ASSERT_NE(VirtualAlloc(page.get(), 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
        buffer.resource = static_cast<uint8_t*>(page.get()) + 4096 - 3 * rowBytes;
        buffer.capacity = 3 * rowBytes;
        EXPECT_EQ(setting.request.HeavyProcessing(), 0) << conversion.code;
    }
}

TEST_F(PixelConversionsTest, CopiesAreFewAndTheFirstIsMeasured) {
    const auto copies = standIn<int()>("standInCopies");
    ASSERT_NE(copies, nullptr);
    for (const auto& [geometry, count] : {std::pair{geometries[0], 1}, std::pair{geometries[2], 6}}) {
        Setting setting(conversions[0], geometry, true);
        const LogSession log(vdLogLevel::info);
        const int before = copies();
        setting.request.HeavyProcessing();
        EXPECT_EQ(copies() - before, count) << geometry.what;
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_NE(lines[0].find("Final Buffer to Copy ! PXAL: 1 RB:"), std::string::npos) << lines[0];
        EXPECT_NE(lines[1].find("1 memcpy = "), std::string::npos) << lines[1];
        EXPECT_NE(lines[1].find(" bytes \t "), std::string::npos) << lines[1];
        EXPECT_NE(lines[2].find("ProcessImage dt "), std::string::npos) << lines[2];
    }
}

TEST_F(PixelConversionsTest, FailedDeviceCopyEndsTheRequestOnce) {
    const auto setError = standIn<void(int)>("standInSetError");
    ASSERT_NE(setError, nullptr);
    setError(77);
    for (const Conversion& conversion : conversions) {
        Setting setting(conversion, geometries[2], true);
        setting.request.HeavyProcessing();
        EXPECT_EQ(setting.request.m_errorCode, brErrorDelivery) << conversion.code;
        EXPECT_EQ(setting.request.m_errorMessage, "(12) CudaMemcpy function returned CUDA error 77");
        EXPECT_EQ(setting.request.m_ends, 1) << conversion.code;
    }
    setError(0);
}

struct Refusal {
    const char* what;
    uint32_t code;
    void (*change)(vdBRAW_Request&);
    const char* logged;
};

TEST_F(PixelConversionsTest, WhatCannotBeDeliveredIsLoggedAndLeavesTheImageAlone) {
    constexpr auto nothing = [](vdBRAW_Request&) {};
    const Refusal refusals[] = {
        {"none", 0, nothing, "Pixel Format / Conversion not implemented !"},
        {"ARGB_16_LOW", 3, nothing, "Pixel Format / Conversion not implemented !"},
        {"ARGB_32_LOW", 8, nothing, "Pixel Format / Conversion not implemented !"},
        {"BGRA_8_UP", 23, nothing, "Pixel Format / Conversion not implemented !"},
        {"BGRA_16_UP", 18, nothing, "This m_pxlConvAlgo should be only GPU : 18"},
        {"BGRA_32_UP", 19, nothing, "This m_pxlConvAlgo should be only GPU : 19"},
        {"BGRA_32_UP, downscaled", 20, nothing, "This m_pxlConvAlgo should be only GPU : 20"},
        {"empty rectangle", 15,
         [](vdBRAW_Request& r) {
             r.m_renderRect = {3, 1, 0, 0};
         },
         "Render Target bad values to divise ! 0, 0"},
        {"no final image", 1, [](vdBRAW_Request& r) { r.m_bufferManager->m_finalImageBuffer = nullptr; },
         "m_finalImageBuffer is nullptr"},
        {"no CUDA device", 1,
         [](vdBRAW_Request& r) {
             r.m_bufferManager->m_isGPU = true;
             r.m_bufferManager->m_resourceType = blackmagicRawResourceTypeBufferOpenCL;
         },
         "GPU Decoding enabled but not working"},
        {"outside", 12,
         [](vdBRAW_Request& r) {
             r.m_renderRect = {0, 6, 16, 12};
         },
         "The render rectangle lies outside of the processed image !"},
    };
    for (const Refusal& refusal : refusals) {
        Setting setting({refusal.code, Pixel::copy4, Walk::whole}, geometries[0], false);
        refusal.change(setting.request);
        const LogSession log(vdLogLevel::error);
        EXPECT_EQ(setting.request.HeavyProcessing(), 0);
        EXPECT_TRUE(setting.isUntouched()) << refusal.what;
        EXPECT_EQ(setting.request.m_errorCode, 0u) << refusal.what;
        ASSERT_EQ(log.lines().size(), 1u) << refusal.what;
        EXPECT_NE(log.lines()[0].find(refusal.logged), std::string::npos) << log.lines()[0];
    }
}

TEST_F(PixelConversionsTest, NothingIsCopiedWhereTheDecoderWroteOrNothingWasAsked) {
    Setting direct(conversions[0], geometries[0], false);
    direct.request.m_bufferManager->m_ownsProcessedBuffer = false;
    EXPECT_EQ(direct.request.HeavyProcessing(), 0);
    EXPECT_EQ(direct.request.m_bufferManager->m_finalImageBuffer,
              direct.request.m_bufferManager->m_processedBuffer.resource);
    EXPECT_TRUE(direct.isUntouched());
    Setting disabled(conversions[0], geometries[0], false);
    disabled.request.m_isEnabled = false;
    EXPECT_EQ(disabled.request.HeavyProcessing(), 0);
    EXPECT_TRUE(disabled.isUntouched());
}

TEST(PixelConversionsProcess, DISABLED_WithoutTheCudaRuntime) {
    const LogSession log(vdLogLevel::error);
    for (const Conversion& conversion : conversions) {
        Setting setting(conversion, geometries[2], true);
        EXPECT_EQ(setting.request.HeavyProcessing(), 0);
        EXPECT_EQ(setting.request.m_errorCode, 0u) << conversion.code;
    }
    ASSERT_EQ(log.lines().size(), std::size(conversions));
    for (const std::string& line : log.lines())
        EXPECT_NE(line.find("CUDA not loaded!"), std::string::npos) << line;
}

TEST(PixelConversionsWithoutRuntimeTest, MissingRuntimeIsALogLine) {
    runInFreshProcess("PixelConversionsProcess.DISABLED_WithoutTheCudaRuntime");
}
} // namespace
