// How the processed image gets into the bitmap where the decoder has not written it there itself.
#include <numeric>

#include "HandlerFixture.h"
#include "LogSession.h"
#include "brThumbnailRequest.h"

namespace {
constexpr uint32_t width = 4, height = 3, bitmapBytes = width * height * 4;

class Delivery : public testing::Test {
protected:
    void SetUp() override {
        BITMAPINFO info = {};
        info.bmiHeader = {sizeof info.bmiHeader, width, height, 1, 32};
        void* pixels = nullptr;
        request.m_hBitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &pixels, nullptr, 0);
        ASSERT_NE(nullptr, pixels);
        bits = static_cast<uint8_t*>(pixels);
        std::iota(image.begin(), image.end(), uint8_t{1});
        request.m_width = request.m_processedWidth = width;
        request.m_height = request.m_processedHeight = height;
        request.m_pixelFormat = brPixelFormat::BGRA_8_LOW;
        request.m_bufferManager = std::make_unique<brBufferManager>(
            nullptr, nullptr, nullptr, blackmagicRawResourceTypeBufferCPU, nullptr, nullptr);
        buffers().m_finalImageBuffer = bits;
        buffers().m_processedBuffer = {brBuffer::Side::host, bitmapBytes, image.data()};
    }
    void TearDown() override { buffers().m_processedBuffer = {}; } // the test's own
    brBufferManager& buffers() { return *request.m_bufferManager; }
    void onDevice(BlackmagicRawResourceType type) {
        buffers().m_isGPU = true;
        buffers().m_resourceType = type;
    }
    /// The first `count` bytes are the image's, and the others nobody's.
    void expectCopied(size_t count) {
        told = request.onProcessComplete();
        std::vector<uint8_t> expected(bitmapBytes);
        std::memcpy(expected.data(), image.data(), count);
        EXPECT_EQ(expected, std::vector<uint8_t>(bits, bits + bitmapBytes));
    }
    void expectError(const std::string& message) {
        expectCopied(0);
        EXPECT_EQ(message, told.text());
        EXPECT_FALSE(request.m_isFinished) << "whoever asked for the delivery ends the request";
    }

    std::vector<uint8_t> image = std::vector<uint8_t>(bitmapBytes + 4);
    uint8_t* bits = nullptr;
    vdBRAW_Request_Thumbnail request;
    vdStatus told;
};

TEST_F(Delivery, CopiesWhatBothHold) {
    for (const uint32_t capacity : {bitmapBytes - 8, bitmapBytes, bitmapBytes + 4}) {
        SCOPED_TRACE(capacity);
        std::memset(bits, 0, bitmapBytes);
        buffers().m_processedBuffer.capacity = capacity;
        const LogSession log(vdLogLevel::info);
        expectCopied(std::min(capacity, bitmapBytes));
        EXPECT_EQ(capacity > bitmapBytes ? 1u : 2u, log.lines().size());
        for (const std::string& line : log.lines())
            EXPECT_NE(std::string::npos, line.find("LaunchHeavyProcessing|[Q")) << line;
        EXPECT_FALSE(told.failed);
    }
}

TEST_F(Delivery, LeavesAloneWhatIsThereOrGoesNowhere) {
    buffers().m_ownsProcessedBuffer = false; // the decoder wrote into the bitmap
    expectCopied(0);
    buffers().m_ownsProcessedBuffer = true;
    request.m_isEnabled = false;
    expectCopied(0);
    request.m_isEnabled = true;
    buffers().m_finalImageBuffer = nullptr;
    expectCopied(0);
    EXPECT_FALSE(told.failed);
}

TEST_F(Delivery, SaysWhatCannotBeDelivered) {
    void* const resource = std::exchange(buffers().m_processedBuffer.resource, nullptr);
    expectError("m_processedBuffer is nullptr");
    buffers().m_processedBuffer.resource = resource;
    for (uint32_t* const side : {&request.m_processedWidth, &request.m_processedHeight})
        for (const uint32_t wrong : {1u, 5u}) {
            const uint32_t right = std::exchange(*side, wrong);
            expectError("The processed image has not the size of the HBitmap");
            *side = right;
        }
    request.m_isOver = true;
    request.m_processedWidth = request.m_processedHeight = 65536; // 0 bytes in 32 bits
    expectError("The processed buffer does not hold the processed image");
    onDevice(blackmagicRawResourceTypeBufferOpenCL);
    request.m_processedWidth = width;
    request.m_processedHeight = height;
    for (const bool isOver : {false, true}) {
        request.m_isOver = isOver;
        expectError("Error while converting processed buffer to CPU : Not Implemented");
    }
}

TEST_F(Delivery, FetchesFromTheDeviceNoMoreThanTheBitmapHolds) {
    const HMODULE runtime = LoadLibraryW((builtFile("cuda") / "cudart64_110.dll").c_str());
    ASSERT_NE(nullptr, runtime);
    const auto setError =
        reinterpret_cast<void (*)(int)>(reinterpret_cast<void*>(GetProcAddress(runtime, "standInSetError")));
    onDevice(blackmagicRawResourceTypeBufferCUDA);
    buffers().m_processedBuffer.capacity = bitmapBytes + 4;
    setError(2);
    expectError("Error while converting processed buffer to CPU : CudaMemcpy function returned CUDA error 2");
    setError(0);
    expectCopied(bitmapBytes);

    std::memset(bits, 0, bitmapBytes);
    request.m_isOver = true; // a frame of 2 x 3 in the middle
    request.m_processedWidth = 2;
    request.onProcessComplete();
    EXPECT_EQ(0, bits[3]);
    EXPECT_EQ(0, std::memcmp(bits + 4, image.data(), 8));
    EXPECT_EQ(0, bits[15]);
    FreeLibrary(runtime);
}
} // namespace
