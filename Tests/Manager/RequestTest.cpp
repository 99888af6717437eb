// What a request is set up as, and what it delivers on the CPU and on a GPU.
#include "DecodeCoreFixture.h"

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
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath); // of 96 by 64
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
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
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
}

TEST_F(RequestTest, EqualityIgnoresOnlyTheJokerQueue) {
    TestRequest a;
    TestRequest b;
    EXPECT_TRUE(a.isSameRequest(b));
    b.m_queueId = 3;
    EXPECT_FALSE(a.isSameRequest(b));
    a.m_queueId = brAnyQueueId;
    EXPECT_TRUE(a.isSameRequest(b) && b.isSameRequest(a));
    b.m_frameSettings.exposure = 0.5f;
    EXPECT_TRUE(a.isSameRequest(b)) << "settings count where they are used";
    a.m_hasCustomSettings = b.m_hasCustomSettings = true;
    EXPECT_FALSE(a.isSameRequest(b));
}

TEST_F(RequestTest, CustomSettingsAndLutReachTheDecoder) {
    ASSERT_EQ(init(), 0);
    m_decoder.setClipsHaveLut(true);
    const auto clip = addClip(m_clipPath);
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
}

TEST_F(RequestTest, GpuRoadGivesThePixelsOfTheClip) {
    ASSERT_EQ(init(true), 0);
    EXPECT_TRUE(m_manager->m_manualDecoderGPU);
    m_decoder.setClipsHaveLut(true);
    const auto clip = addClip(m_clipPath);
    for (const uint32_t padding : {0u, 16u})
        for (const brPixelFormat format : {brPixelFormat::BGRA_8_LOW, brPixelFormat::ARGB_8_UP}) {
            const auto request = makeRequest(*clip, format, padding);
            ASSERT_TRUE(request->m_bufferManager->m_isGPU);
            request->cloneProcessingAttributes(*clip);
            EXPECT_EQ(m_manager->ProcessFrameSync(request), 0);
            EXPECT_EQ(request->m_errorMessage, "");
            size_t wrong = 0;
            for (uint32_t y = 0; y < m_clipFile.height; ++y)
                for (uint32_t x = 0; x < m_clipFile.width; ++x) {
                    auto expected = expectedPixel(m_clipFile, 1, x, y);
                    if (format == brPixelFormat::ARGB_8_UP)
                        std::reverse(expected.begin(), expected.end());
                    const size_t at = y * static_cast<uint32_t>(request->m_rowBytes) + x * 4;
                    wrong += !std::equal(expected.begin(), expected.end(), &request->pixels[at]);
                }
            EXPECT_EQ(wrong, 0u) << pixelFormatName(format) << " +" << padding;
        }
    EXPECT_EQ(m_decoder.account().jobsWithLut, 4);
}

} // namespace
