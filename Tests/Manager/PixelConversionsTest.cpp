// Every conversion into the final image against a plain one written here, pixel by pixel.
#include <cmath>
#include <random>

#include "DecodeCoreFixture.h"
#include "FreshProcess.h"
#include "LogSession.h"

namespace {
using Bytes = std::vector<uint8_t>;

enum class Pixel { copy4, copy16, argb8, bgra16, argb16, argbFloat };
constexpr uint32_t sourceBytes[] = {4, 16, 4, 8, 8, 12}, finalBytes[] = {4, 16, 4, 8, 8, 16};
enum class Walk { whole, flipped, region, sampled };

constexpr struct Conversion {
    uint32_t code;
    Pixel pixel;
    Walk walk;
} conversions[] = {{1, Pixel::copy4, Walk::whole},        {2, Pixel::argb8, Walk::flipped},
                   {4, Pixel::bgra16, Walk::whole},       {7, Pixel::copy16, Walk::region},
                   {9, Pixel::argb8, Walk::sampled},      {10, Pixel::argb16, Walk::sampled},
                   {11, Pixel::argbFloat, Walk::sampled}, {12, Pixel::argb8, Walk::region},
                   {13, Pixel::argb16, Walk::region},     {14, Pixel::argbFloat, Walk::region},
                   {15, Pixel::copy4, Walk::sampled},     {16, Pixel::bgra16, Walk::sampled},
                   {17, Pixel::copy16, Walk::sampled},    {21, Pixel::copy4, Walk::whole},
                   {22, Pixel::copy4, Walk::sampled}};

void convert(Pixel pixel, uint8_t* to, const uint8_t* from) {
    constexpr float one = 1;
    if (pixel == Pixel::copy4 || pixel == Pixel::copy16) {
        std::memcpy(to, from, finalBytes[static_cast<size_t>(pixel)]);
    } else if (pixel == Pixel::argb8) {
        to[0] = 255;
        std::memcpy(to + 1, from, 3);
    } else if (pixel == Pixel::argbFloat) {
        std::memcpy(to, &one, 4);
        std::memcpy(to + 4, from, 12);
    } else {
        std::array<uint16_t, 4> values{};
        std::memcpy(values.data(), from, 6);
        for (uint16_t& value : values)
            value = static_cast<uint16_t>(value == 65535 ? 32768 : value / 2);
        values[3] = 32768;
        if (pixel == Pixel::argb16)
            std::rotate(values.begin(), values.begin() + 3, values.end());
        std::memcpy(to, values.data(), 8);
    }
}

/// Sizes in pixels; the final image is as large as the rectangle. `padding` is added to a final row; a
/// negative one cuts it short.
constexpr struct Geometry {
    const char* what;
    uint32_t processedWidth, processedHeight;
    brRect rect;
    int padding = 0;
    bool negative = false;
    float scale = 2;
} geometries[] = {
    {"matching", 16, 6, {0, 0, 16, 6}},
    {"padded", 16, 6, {0, 0, 16, 6}, 4},
    {"matching, upwards", 16, 6, {0, 0, 16, 6}, 0, true},
    {"padded, upwards", 16, 6, {0, 0, 16, 6}, 4, true},
    {"one pixel", 1, 1, {0, 0, 1, 1}},
    {"odd", 37, 7, {0, 0, 37, 7}, 1, true},
    {"at the left edge", 19, 9, {0, 0, 5, 9}},
    {"at the right edge", 19, 9, {14, 0, 19, 9}, 0, true},
    {"at the top edge", 19, 9, {0, 0, 19, 2}},
    {"at the bottom edge", 19, 9, {0, 7, 19, 9}, 0, true},
    {"inside", 19, 9, {6, 4, 13, 7}, 3},
    {"over the lower right edge", 19, 9, {15, 6, 25, 14}},
    {"left of the picture", 19, 9, {-1, 0, 3, 4}},
    {"above the picture", 19, 9, {0, -1, 4, 3}, 0, true},
    {"final image larger", 8, 5, {0, 0, 11, 9}, 0, false, 0.5f},
    {"one to one", 19, 9, {2, 1, 11, 6}, 0, false, 1},
    {"final image smaller", 23, 11, {0, 0, 8, 4}, 0, true, 2.7f},
    {"rows too short", 16, 6, {0, 0, 16, 6}, -3},
};

int64_t sampled(int32_t start, uint32_t steps, float scale, uint32_t count) {
    float position = static_cast<float>(start) * scale;
    for (uint32_t i = 0; i < steps; ++i)
        position += scale;
    return std::clamp(static_cast<int64_t>(std::floor(position)), int64_t{0}, int64_t{count} - 1);
}

/// One delivery: a source of random but opaque pixels that ends where accessible memory ends, and a final
/// image inside a larger buffer, which shows every byte that should not have been written.
class Setting {
public:
    Setting(const Conversion& conversion, const Geometry& geometry, bool gpu = false)
        : m_conversion(conversion), m_geometry(geometry),
          m_width(static_cast<uint32_t>(geometry.rect.right - geometry.rect.left)),
          m_height(static_cast<uint32_t>(geometry.rect.bottom - geometry.rect.top)),
          m_rowBytes((m_width + static_cast<uint32_t>(geometry.padding)) * m_finalPixel),
          m_final(guard + size_t{m_rowBytes} * m_height + guard, 0xAB) {
        fillSource();
        request.m_bufferManager = std::make_unique<brBufferManager>(
            nullptr, nullptr, nullptr, blackmagicRawResourceTypeBufferCPU, nullptr, nullptr);
        buffers().m_isGPU = gpu;
        if (gpu)
            buffers().m_resourceType = blackmagicRawResourceTypeBufferCUDA;
        keepSource(geometry.processedHeight);
        buffers().m_finalImageBuffer =
            m_final.data() + guard + (geometry.negative ? size_t{m_rowBytes} * (m_height - 1) : 0);
        request.m_pxlConvAlgo = conversion.code;
        request.m_rowBytes = static_cast<int32_t>(m_rowBytes) * (geometry.negative ? -1 : 1);
        request.m_width = m_width;
        request.m_height = m_height;
        request.m_renderRect = geometry.rect;
        request.m_resourceBytesPerPixel = static_cast<uint8_t>(m_sourcePixel);
        request.m_processedWidth = geometry.processedWidth;
        request.m_processedHeight = geometry.processedHeight;
        request.m_downscaleX = geometry.scale;
        request.m_downscaleY = geometry.scale * 1.5f;
    }
    ~Setting() {
        buffers().m_processedBuffer = {}; // ours, not the decoder's
        VirtualFree(m_pages, 0, MEM_RELEASE);
    }
    brBufferManager& buffers() { return *request.m_bufferManager; }

    /// The processed buffer holds the last rows of the source alone.
    void keepSource(uint32_t rows) {
        const uint32_t bytes = rows * m_geometry.processedWidth * m_sourcePixel;
        buffers().m_processedBuffer = {brBuffer::Side::host, bytes, m_pages + committed - bytes};
    }

    Bytes expected() const {
        Bytes image(m_final.size(), 0xAB);
        const auto& [what, width, height, rect, padding, negative, scale] = m_geometry;
        const uint32_t held = m_rowBytes / m_finalPixel;
        const bool isWhole = m_conversion.walk == Walk::whole || m_conversion.walk == Walk::flipped;
        for (uint32_t y = 0; y < m_height; ++y)
            for (uint32_t x = 0; x < (isWhole ? held : std::min(m_width, held)); ++x) {
                int64_t row = y, column = x;
                if (m_conversion.walk == Walk::flipped) {
                    row = int64_t{height} - 1 - y;
                } else if (m_conversion.walk == Walk::region) {
                    row = rect.top < 0 || rect.left < 0 ? -1 : row + rect.top;
                    column += rect.left;
                } else if (m_conversion.walk == Walk::sampled) {
                    row = sampled(rect.top, y, scale * 1.5f, height);
                    column = sampled(rect.left, x, scale, width);
                }
                if (row < 0 || row >= height || column >= width)
                    continue;
                const uint32_t finalRow = negative && isWhole ? m_height - 1 - y : y;
                convert(m_conversion.pixel, &image[guard + size_t{finalRow} * m_rowBytes + x * m_finalPixel],
                        &m_source[static_cast<size_t>(row * width + column) * m_sourcePixel]);
            }
        return image;
    }
    const Bytes& delivered() const { return m_final; }
    bool isUntouched() const { return m_final == Bytes(m_final.size(), 0xAB); }

    TestRequest request;

private:
    static constexpr size_t guard = 256, committed = 8192;

    void fillSource() {
        m_source.resize(size_t{m_geometry.processedWidth} * m_geometry.processedHeight * m_sourcePixel);
        std::mt19937 random(m_geometry.processedWidth);
        for (uint8_t& byte : m_source)
            byte = static_cast<uint8_t>(random());
        // Opaque, since some conversions carry a pixel's alpha over to its neighbour; and with both ends of
        // the 16-bit range in it.
        const size_t alpha = m_sourcePixel / 4;
        const bool isOpaque = alpha <= 2 && m_conversion.pixel != Pixel::bgra16;
        for (size_t end = m_sourcePixel; isOpaque && end <= m_source.size(); end += m_sourcePixel)
            std::memset(&m_source[end - alpha], 255, alpha);
        constexpr uint16_t ends[] = {65535, 65534, 1};
        if (alpha == 2)
            std::memcpy(m_source.data(), ends, sizeof ends);
        m_pages = static_cast<uint8_t*>(VirtualAlloc(nullptr, committed * 2, MEM_RESERVE, PAGE_READWRITE));
        VirtualAlloc(m_pages, committed, MEM_COMMIT, PAGE_READWRITE);
        std::memcpy(m_pages + committed - m_source.size(), m_source.data(), m_source.size());
    }

    Conversion m_conversion;
    Geometry m_geometry;
    uint32_t m_sourcePixel = sourceBytes[static_cast<size_t>(m_conversion.pixel)];
    uint32_t m_finalPixel = finalBytes[static_cast<size_t>(m_conversion.pixel)];
    uint32_t m_width, m_height, m_rowBytes;
    uint8_t* m_pages = nullptr;
    Bytes m_source, m_final;
};

class PixelConversionsTest : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(LoadLibraryW(builtFile("cuda/cudart64_110.dll").c_str())); }

    /// Nothing arrives in the final image, which is no error of the request; an error line says why, where
    /// there is anything to be said.
    static void expectUntouched(uint32_t code, const char* logged, void (*change)(TestRequest&) = nullptr) {
        SCOPED_TRACE(testing::Message() << code << " " << logged);
        Setting setting({code, Pixel::copy4, Walk::whole}, geometries[0]);
        if (change)
            change(setting.request);
        const LogSession log(vdLogLevel::error);
        EXPECT_FALSE(setting.request.HeavyProcessing().failed);
        EXPECT_TRUE(setting.isUntouched());
        EXPECT_EQ(setting.request.m_errorCode, 0u);
        const auto lines = log.lines();
        EXPECT_EQ(lines.size(), *logged ? 1u : 0u);
        EXPECT_TRUE(lines.empty() || lines[0].find(logged) != std::string::npos) << lines[0];
    }
};

TEST_F(PixelConversionsTest, EveryConversionEqualsThePlainOne) {
    for (const Conversion& conversion : conversions)
        for (const Geometry& geometry : geometries)
            for (const bool gpu : {false, true}) {
                Setting setting(conversion, geometry, gpu);
                EXPECT_FALSE(setting.request.LaunchHeavyProcessing().failed);
                EXPECT_TRUE(setting.delivered() == setting.expected())
                    << "code " << conversion.code << ", " << geometry.what << (gpu ? ", GPU" : ", CPU");
                EXPECT_EQ(setting.request.m_errorCode, 0u);
            }
}

// A processed buffer that holds less than the image's size says must not be read beyond its end.
TEST_F(PixelConversionsTest, ShortSourceIsNotReadBeyondItsEnd) {
    for (const Conversion& conversion : conversions) {
        Setting setting(conversion, geometries[0]);
        setting.keepSource(3);
        EXPECT_FALSE(setting.request.HeavyProcessing().failed) << conversion.code;
    }
}

TEST_F(PixelConversionsTest, CopiesAreFewAndTheFirstIsMeasured) {
    const auto copies = standIn<int()>("standInCopies");
    for (const auto& [geometry, count] : {std::pair{geometries[0], 1}, std::pair{geometries[1], 6}}) {
        Setting setting(conversions[0], geometry, true);
        const LogSession log(vdLogLevel::info);
        const int before = copies();
        setting.request.HeavyProcessing();
        EXPECT_EQ(copies() - before, count) << geometry.what;
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_NE(lines[0].find("|Request        | HeavyProcessing|["), std::string::npos) << lines[0];
        EXPECT_NE(lines[0].find("Final Buffer to Copy ! PXAL: 1 RB:"), std::string::npos) << lines[0];
        EXPECT_NE(lines[1].find("1 memcpy = "), std::string::npos) << lines[1];
        EXPECT_NE(lines[2].find("ProcessImage dt "), std::string::npos) << lines[2];
    }
}

TEST_F(PixelConversionsTest, FailedDeviceCopyIsTold) {
    const auto setError = standIn<void(int)>("standInSetError");
    setError(77);
    for (const Conversion& conversion : conversions) {
        Setting setting(conversion, geometries[1], true);
        EXPECT_EQ(setting.request.HeavyProcessing().text(), "CudaMemcpy function returned CUDA error 77")
            << conversion.code;
        EXPECT_FALSE(setting.request.m_isFinished) << "whoever asked for the delivery ends the request";
    }
    setError(0);
}

TEST_F(PixelConversionsTest, WhatCannotBeDeliveredIsLoggedAndLeavesTheImageAlone) {
    for (const uint32_t code : {0u, 3u, 8u, 23u})
        expectUntouched(code, "Pixel Format / Conversion not implemented !");
    expectUntouched(18, "This m_pxlConvAlgo should be only GPU : 18");
    expectUntouched(19, "This m_pxlConvAlgo should be only GPU : 19");
    expectUntouched(20, "This m_pxlConvAlgo should be only GPU : 20");
    expectUntouched(15, "Render Target bad values to divise ! 0, 0",
                    [](TestRequest& r) { r.m_renderRect.right = r.m_renderRect.bottom = 0; });
    expectUntouched(12, "The render rectangle lies outside of the processed image !",
                    [](TestRequest& r) { r.m_renderRect.top = 6; });
    expectUntouched(1, "m_finalImageBuffer is nullptr",
                    [](TestRequest& r) { r.m_bufferManager->m_finalImageBuffer = nullptr; });
    expectUntouched(1, "GPU Decoding enabled but not working", [](TestRequest& r) {
        r.m_bufferManager->m_isGPU = true;
        r.m_bufferManager->m_resourceType = blackmagicRawResourceTypeBufferOpenCL;
    });
    expectUntouched(1, "", [](TestRequest& r) { r.m_isEnabled = false; });
    // The decoder wrote the final image itself.
    expectUntouched(1, "", [](TestRequest& r) { r.m_bufferManager->m_ownsProcessedBuffer = false; });
}

TEST(PixelConversionsProcess, DISABLED_WithoutTheCudaRuntime) {
    const LogSession log(vdLogLevel::error);
    for (const Conversion& conversion : conversions)
        EXPECT_FALSE(Setting(conversion, geometries[1], true).request.HeavyProcessing().failed);
    ASSERT_EQ(log.lines().size(), std::size(conversions));
    for (const std::string& line : log.lines())
        EXPECT_NE(line.find("CUDA not loaded!"), std::string::npos) << line;
}

TEST(PixelConversionsWithoutRuntimeTest, MissingRuntimeIsALogLine) {
    runInFreshProcess("PixelConversionsProcess.DISABLED_WithoutTheCudaRuntime");
}
} // namespace
