// What a request is set up as, and what it delivers on the CPU and on a GPU.
#include "DecodeCoreFixture.h"

#include <cmath>
#include <tuple>

#include "Utils/vdResult.h"

namespace {

using RequestTest = DecodeCoreTest;

TEST_F(RequestTest, SmallestResolutionThatCoversTheAskedSize) {
    const struct {
        uint32_t asked, width, height;
        BlackmagicRawResolutionScale scale;
        bool isOver = false;
    } cases[] = {{1, 12, 8, blackmagicRawResolutionScaleEighth},
                 {8, 12, 8, blackmagicRawResolutionScaleEighth},
                 {9, 24, 16, blackmagicRawResolutionScaleQuarter},
                 {32, 48, 32, blackmagicRawResolutionScaleHalf},
                 {64, 96, 64, blackmagicRawResolutionScaleFull},
                 {65, 65, 65, blackmagicRawResolutionScaleFull, true}};
    const auto clip = start(); // of 96 by 64
    TestRequest request;
    for (const auto& [asked, width, height, scale, isOver] : cases) {
        SCOPED_TRACE(asked);
        const auto side = static_cast<int32_t>(asked);
        request.setScaleAndDimensions(*clip, {0, 96, asked}, {0, 64, asked}, {0, 0, side, side});
        EXPECT_EQ(std::pair(request.m_width, request.m_height), std::pair(width, height));
        EXPECT_EQ(request.m_resolutionScale, scale);
        EXPECT_EQ(request.m_isOver, isOver);
        const brRect whole{0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)};
        EXPECT_TRUE(request.m_renderRect == whole);
    }
    EXPECT_EQ(request.setScaleAndDimensions(*clip, {0, 96, 0}, {0, 64, 9}, {0, 0, 0, 9}).text(),
              "setScaleAndDimensions - downscale num is 0 !");
    // A scale that is given counts, whatever sizes stand beside it; and the smaller of the two is kept.
    for (const auto& [x, y, width] : {std::tuple(4.0f, 4.0f, 24u), {4.0f, 2.0f, 48u}, {3.9f, 9.0f, 48u}}) {
        request.setScaleAndDimensions(*clip, {x, 96, 96}, {y, 0, 0}, {0, 0, 96, 64});
        EXPECT_EQ(request.m_width, width) << x << ", " << y;
    }
}

// One pixel too many, and the decoder no longer writes into the bitmap itself.
TEST_F(RequestTest, TheWholePictureIsAskedForWhateverItsSides) {
    vdBRAW_Clip clip(0, {});
    clip.m_height = 11;
    TestRequest request;
    for (clip.m_width = 11; clip.m_width < 700; ++clip.m_width)
        for (const uint32_t asked : {1u, 7u, 11u}) {
            const auto side = static_cast<int32_t>(asked);
            const auto width = static_cast<int32_t>(clip.m_width);
            clip.m_resolutions = {{clip.m_width, 11, blackmagicRawResolutionScaleFull}};
            request.setScaleAndDimensions(clip, {0, width, asked}, {0, 11, asked}, {0, 0, side, side});
            EXPECT_TRUE(request.m_renderRect == (brRect{0, 0, width, 11})) << width << " at " << asked;
        }
}

TEST_F(RequestTest, FormatsWithoutAConversionAreRefused) {
    const struct {
        brPixelFormat format;
        bool downscale;
        uint32_t conversion;
        const char* refusal = "";
    } cases[] = {
        {brPixelFormat::BGRA_8_LOW, false, 1},
        {brPixelFormat::BGRA_16_UP, false, 18},
        {brPixelFormat::RGBA_8_UP, true, 22},
        {brPixelFormat::ARGB_16_LOW, false, 3, "Unknown BM Pixel format"},
        {brPixelFormat::RGB_8_UP, false, 0, "No implemented yet : targetPixel RGB_8_UP"},
        {static_cast<brPixelFormat>(99), false, 0, "No implemented yet : targetPixel 99"},
        {brPixelFormat::ARGB_8_LOW, true, 0, "No implemented yet : Downscale and targetPixel ARGB_8_LOW"},
    };
    ASSERT_EQ(init(), 0);
    for (const auto& [format, downscale, conversion, refusal] : cases) {
        TestRequest request;
        request.m_downscale = downscale;
        EXPECT_EQ(request.setup(0, 1, nullptr, 4, format, m_manager->createBufferManager()).text(), refusal);
        EXPECT_TRUE(*refusal || request.m_pxlConvAlgo == conversion) << conversion;
    }
}

TEST_F(RequestTest, DecoderWritesIntoTheFinalBufferOnlyWhereTheLayoutIsItsOwn) {
    const auto clip = start();
    const auto request = makeRequest(*clip);
    const auto goesThroughOurs = [&](int32_t rowBytes) {
        request->setup(0, 1, request->pixels.data(), rowBytes, brPixelFormat::BGRA_8_LOW,
                       m_manager->createBufferManager());
        return request->m_bufferManager->m_ownsProcessedBuffer;
    };
    EXPECT_FALSE(goesThroughOurs(96 * 4));
    EXPECT_TRUE(goesThroughOurs(96 * 4 + 4)) << "longer rows";
    EXPECT_TRUE(goesThroughOurs(96 * -4)) << "upwards";
    request->m_renderRect.left = 1;
    EXPECT_TRUE(goesThroughOurs(96 * 4)) << "a part";
    request->m_renderRect.left = 0;
    request->m_isOver = true;
    EXPECT_TRUE(goesThroughOurs(96 * 4)) << "more than the clip has";
    request->m_isOver = false;
    request->m_width = request->m_height = 1 << 15;
    request->m_renderRect = {0, 0, 1 << 15, 1 << 15};
    EXPECT_TRUE(goesThroughOurs(1 << 17)) << "of a size beyond 32 bits";
}

// Each field counts from one of three levels on: without settings of its own, with them, and with all of
// them, the texts full and the gamma a custom one.
TEST_F(RequestTest, EqualityFieldByField) {
    using Change = void (*)(TestRequest&);
    constexpr Change levels[] = {[](TestRequest&) {}, [](TestRequest& r) { r.m_hasCustomSettings = true; },
                                 [](TestRequest& r) {
                                     r.m_hasCustomSettings = true;
                                     std::memset(r.m_clipSettings.gamut, 'g', 63);
                                     std::memset(r.m_clipSettings.lutMode, 'l', 11);
                                     std::strcpy(r.m_clipSettings.gamma, brCustomGamma);
                                 }};
    constexpr size_t never = std::size(levels);
    constexpr struct {
        const char* name;
        size_t level;
        Change change;
    } fields[] = {
        {"clip", 0, [](TestRequest& r) { r.m_clipId = 1; }},
        {"frame", 0, [](TestRequest& r) { r.m_frameIndex = 1; }},
        {"queue", 0, [](TestRequest& r) { r.m_queueId = 3; }},
        {"scale", 0, [](TestRequest& r) { r.m_resolutionScale = blackmagicRawResolutionScaleHalf; }},
        {"format", 0, [](TestRequest& r) { r.m_pixelFormat = brPixelFormat::BGRA_8_LOW; }},
        {"submitted", 0, [](TestRequest& r) { r.m_isSubmitted = true; }},
        {"custom", 0, [](TestRequest& r) { r.m_hasCustomSettings = !r.m_hasCustomSettings; }},
        {"color science", 1, [](TestRequest& r) { r.m_clipSettings.colorScience = 5; }},
        {"gamut's last letter", 2, [](TestRequest& r) { r.m_clipSettings.gamut[63] = 'x'; }},
        {"gamut compression", 1, [](TestRequest& r) { r.m_clipSettings.gamutCompression = true; }},
        {"gamma", 1, [](TestRequest& r) { r.m_clipSettings.gamma[0] = 'x'; }},
        {"recovery", 1, [](TestRequest& r) { r.m_clipSettings.highlightRecovery = true; }},
        {"LUT's last letter", 2, [](TestRequest& r) { r.m_clipSettings.lutMode[11] = 'x'; }},
        {"ISO", 1, [](TestRequest& r) { r.m_frameSettings.iso = 801; }},
        {"temperature", 1, [](TestRequest& r) { r.m_frameSettings.colorTemp = 5501; }},
        {"tint", 1, [](TestRequest& r) { r.m_frameSettings.tint = 11; }},
        {"exposure", 1, [](TestRequest& r) { r.m_frameSettings.exposure = 0.5f; }},
        {"saturation", 2, [](TestRequest& r) { r.m_clipSettings.saturation = 2; }},
        {"contrast", 2, [](TestRequest& r) { r.m_clipSettings.contrast = 2; }},
        {"midpoint", 2, [](TestRequest& r) { r.m_clipSettings.midpoint = 2; }},
        {"highlights", 2, [](TestRequest& r) { r.m_clipSettings.highlights = 2; }},
        {"shadows", 2, [](TestRequest& r) { r.m_clipSettings.shadows = 2; }},
        {"white", 2, [](TestRequest& r) { r.m_clipSettings.whiteLevel = 2; }},
        {"black", 2, [](TestRequest& r) { r.m_clipSettings.blackLevel = 2; }},
        {"not a number", 2, [](TestRequest& r) { r.m_clipSettings.blackLevel = NAN; }},
        {"video black", 2, [](TestRequest& r) { r.m_clipSettings.videoBlackLevel = true; }},
        {"host number", never, [](TestRequest& r) { r.m_frameSettings.hostNumber = 1; }},
        {"host value", never, [](TestRequest& r) { r.m_frameSettings.hostValue = 1; }},
        {"frames", never, [](TestRequest& r) { r.m_frameCount = 1; }},
        {"joker", never, [](TestRequest& r) { r.m_queueId = brAnyQueueId; }}};
    for (size_t level = 0; level < std::size(levels); ++level)
        for (const auto& [name, from, change] : fields) {
            TestRequest a, b;
            levels[level](a);
            levels[level](b);
            EXPECT_TRUE(a.isSameRequest(b));
            change(b);
            EXPECT_EQ(a.isSameRequest(b), level < from) << name << " " << level;
            EXPECT_EQ(b.isSameRequest(a), level < from) << name << " " << level;
        }
}

TEST_F(RequestTest, CustomSettingsAndLutReachTheDecoder) {
    m_decoder.setClipsHaveLut(true);
    const auto clip = start();
    // A refused attribute ends the request, in the stage that sends it.
    const std::string refused = "(3) Setting ISO Attribute failed : " + hresultText(E_FAIL);
    for (const std::string& error : {std::string(), refused}) {
        m_request = makeRequest(*clip);
        m_request->m_hasCustomSettings = true;
        m_request->m_frameSettings.iso = 1200;
        m_request->cloneProcessingAttributes(*clip);
        m_manager->ProcessFrameSync(m_request);
        EXPECT_EQ(m_request->m_errorMessage, error);
        m_decoder.setAttributeRule({blackmagicRawFrameISO, E_FAIL, S_OK, S_OK, 0});
    }
    const ReferenceDecoderAccount account = m_decoder.account();
    EXPECT_EQ(account.statesWithClipAttributes, 1);
    EXPECT_EQ(account.statesWithFrameAttributes, 1);
    EXPECT_EQ(account.jobsWithLut, 1);
    EXPECT_TRUE(std::ranges::any_of(m_decoder.sentAttributes(), [](const auto& sent) {
        return sent.code == blackmagicRawFrameISO && sent.number == 1200;
    }));
}

TEST_F(RequestTest, GpuThatCannotBeBoundIsTolerated) {
    arm("Configuration::SetFromDevice");
    ASSERT_EQ(init(true), 0);
    EXPECT_FALSE(m_manager->createBufferManager()->m_isGPU) << "no decoder would stand behind the buffers";

    // Without a new device the old one is bound once more, to the codec that goes and to that which comes.
    arm("Factory::CreatePipelineIterator");
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCUDA, true), 0);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRawConfiguration::SetFromDevice"), 2u);
    EXPECT_TRUE(m_manager->createBufferManager()->m_isGPU);
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCUDA, true), 0);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRawConfiguration::SetFromDevice"), 3u);
}

// The corners' channels in each format, as the decoder and the conversion make them, on the CPU and on a GPU
// (with and without working memory), the picture's top row or its bottom row first, as the format says.
TEST_F(RequestTest, EveryFormatHasItsChannelsAndItsDirection) {
    const struct {
        brPixelFormat format;
        const char* channels; ///< in memory order
        uint32_t opaque;      ///< full value of an integer channel; 1: floats
        bool isFlipped = false;
    } cases[] = {
        {brPixelFormat::BGRA_8_LOW, "BGRA", 255},    {brPixelFormat::ARGB_8_LOW, "ARGB", 255, true},
        {brPixelFormat::BGRA_16_LOW, "BGRA", 32768}, {brPixelFormat::BGRA_32_LOW, "BGRA", 1},
        {brPixelFormat::ARGB_8_UP, "ARGB", 255},     {brPixelFormat::ARGB_16_UP, "ARGB", 32768},
        {brPixelFormat::ARGB_32_UP, "ARGB", 1},      {brPixelFormat::RGBA_8_UP, "RGBA", 255},
    };
    m_decoder.setClipsHaveLut(true);
    m_decoder.setGuardResources(true);
    for (const bool isGpu : {false, true})
        for (const uint32_t padding : {0u, 16u}) {
            m_decoder.setManners(padding ? ReferenceDecoderManners::noWorkingMemory
                                         : ReferenceDecoderManners::none);
            const auto clip = start(isGpu);
            for (const auto& [format, channels, opaque, isFlipped] : cases) {
                SCOPED_TRACE(pixelFormatName(format) + (isGpu ? " GPU +" : " +") + std::to_string(padding));
                const auto request = makeRequest(*clip, format, padding);
                request->cloneProcessingAttributes(*clip);
                ASSERT_EQ(m_manager->ProcessFrameSync(request), 0);
                ASSERT_EQ(request->m_errorMessage, "");
                EXPECT_FALSE(request->m_processedImage || request->m_clipInUse ||
                             request->m_clipProcessingAttributes);
                ASSERT_EQ(request->m_bufferManager->m_isGPU, isGpu);
                EXPECT_EQ(request->m_bufferManager->m_workingBuffer.resource != nullptr, isGpu && !padding);
                for (const auto& [x, y] : {std::pair(0u, 0u), {95u, 0u}, {0u, 63u}, {95u, 63u}}) {
                    const size_t row = size_t{y} * static_cast<uint32_t>(request->m_rowBytes);
                    const uint8_t* pixel = &request->pixels[row + x * pixelFormatBytes(format)];
                    const auto bgra = expectedPixel(m_clipFile, 1, x, isFlipped ? 63 - y : y);
                    for (int i = 0; i < 4; ++i) {
                        const size_t channel = std::string_view("BGRA").find(channels[i]);
                        const double value = opaque == 255     ? pixel[i]
                                             : opaque == 32768 ? reinterpret_cast<const uint16_t*>(pixel)[i]
                                                               : reinterpret_cast<const float*>(pixel)[i];
                        EXPECT_NEAR(value / opaque, bgra[channel] / 255.0, 1e-3)
                            << x << ", " << y << channels[i];
                    }
                }
            }
        }
    EXPECT_EQ(m_decoder.account().jobsWithLut, static_cast<int64_t>(4 * std::size(cases)));
}

// A device without free memory, or one that cannot tell: all is done on the CPU, with buffers of its kind.
TEST_F(RequestTest, GpuWithoutFreeMemoryLeavesItToTheCpu) {
    const auto clip = start(true);
    const auto setMemory = standIn<void(size_t, size_t)>("standInSetMemory");
    const auto setError = standIn<void(int)>("standInSetError");
    for (const bool cannotTell : {false, true}) {
        cannotTell ? setError(2) : setMemory(0, 8);
        const auto request = makeRequest(*clip, brPixelFormat::BGRA_8_LOW, 4);
        request->m_frameIndex = 1;
        setError(0);
        setMemory(size_t{6} << 30, size_t{8} << 30);
        const brBufferManager& buffers = *request->m_bufferManager;
        EXPECT_FALSE(buffers.m_isGPU || buffers.m_context || buffers.m_commandQueue);
        EXPECT_EQ(buffers.m_resourceType, blackmagicRawResourceTypeBufferCPU);
        EXPECT_EQ(m_manager->ProcessFrameSync(request), 0);
        EXPECT_EQ(request->m_errorMessage, "");
        const auto expected = expectedPixel(m_clipFile, 1, 95, 63, 1);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), request->pixels.end() - 8));
        EXPECT_EQ(buffers.m_decodedBufferGPU.resource, nullptr);
    }
    setMemory(1, 8);
    EXPECT_TRUE(m_manager->createBufferManager()->m_isGPU) << "any free byte keeps the device";
    setMemory(size_t{6} << 30, size_t{8} << 30);
}

} // namespace
