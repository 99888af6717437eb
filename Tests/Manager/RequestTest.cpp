// What a request is set up as, and the road of its buffers on the CPU and on a GPU.
#include "DecodeCoreFixture.h"

#include "Utils/vdResult.h"

namespace {

using Kind = ReferenceDecoderFaultKind;
using RequestTest = DecodeCoreTest;

/// A clip that nobody opened, with the four resolutions that a decoder offers.
struct Facts : vdBRAW_Clip {
    Facts(uint32_t width, uint32_t height) : vdBRAW_Clip(0, "") {
        m_width = width;
        m_height = height;
        constexpr BlackmagicRawResolutionScale scales[] = {
            blackmagicRawResolutionScaleFull, blackmagicRawResolutionScaleHalf,
            blackmagicRawResolutionScaleQuarter, blackmagicRawResolutionScaleEighth};
        for (uint32_t i = 0; i < 4; ++i)
            m_resolutions.push_back({width >> i, height >> i, scales[i]});
    }
};

TEST_F(RequestTest, SmallestResolutionThatCoversTheAskedSize) {
    struct Case {
        uint32_t asked, width, height;
        BlackmagicRawResolutionScale scale;
        bool isOver;
    };
    const Case cases[] = {
        {1, 768, 432, blackmagicRawResolutionScaleEighth, false},
        {256, 768, 432, blackmagicRawResolutionScaleEighth, false},
        {432, 768, 432, blackmagicRawResolutionScaleEighth, false},
        {433, 1536, 864, blackmagicRawResolutionScaleQuarter, false},
        {500, 1536, 864, blackmagicRawResolutionScaleQuarter, false},
        {3456, 6144, 3456, blackmagicRawResolutionScaleFull, false},
        {3457, 3457, 3457, blackmagicRawResolutionScaleFull, true},
        {8000, 8000, 8000, blackmagicRawResolutionScaleFull, true},
    };
    const Facts clip(6144, 3456);
    for (const Case& c : cases) {
        TestRequest request;
        const auto side = static_cast<int32_t>(c.asked);
        EXPECT_FALSE(
            request.setScaleAndDimensions(clip, {0, 6144, c.asked}, {0, 3456, c.asked}, {0, 0, side, side})
                .failed);
        EXPECT_EQ(request.m_width, c.width) << c.asked;
        EXPECT_EQ(request.m_height, c.height) << c.asked;
        EXPECT_EQ(request.m_resolutionScale, c.scale) << c.asked;
        EXPECT_EQ(request.m_isOver, c.isOver) << c.asked;
        const brRect whole{0, 0, static_cast<int32_t>(c.width), static_cast<int32_t>(c.height)};
        EXPECT_TRUE(request.m_renderRect == whole) << c.asked;
    }
    TestRequest request;
    EXPECT_EQ(request.setScaleAndDimensions(clip, {0, 6144, 0}, {0, 3456, 9}, {0, 0, 0, 9}).text(),
              "setScaleAndDimensions - downscale num is 0 !");
}

TEST_F(RequestTest, FormatsWithoutAConversionAreRefused) {
    struct Case {
        brPixelFormat format;
        bool downscale;
        uint32_t conversion; ///< 0: refused
        std::string refusal;
    };
    const Case cases[] = {
        {brPixelFormat::BGRA_8_LOW, false, 1, ""},
        {brPixelFormat::BGRA_16_UP, false, 18, ""},
        {brPixelFormat::RGBA_8_UP, true, 22, ""},
        {brPixelFormat::ARGB_16_LOW, false, 0, "Unknown BM Pixel format"},
        {brPixelFormat::RGB_8_UP, false, 0, "No implemented yet : targetPixel RGB_8_UP"},
        {static_cast<brPixelFormat>(99), false, 0, "No implemented yet : targetPixel 99"},
        {brPixelFormat::ARGB_8_LOW, true, 0, "No implemented yet : Downscale and targetPixel ARGB_8_LOW"},
    };
    ASSERT_EQ(init(), 0);
    for (const Case& c : cases) {
        TestRequest request;
        request.m_downscale = c.downscale;
        EXPECT_EQ(request.setup(0, 1, nullptr, 4, c.format, m_manager->createBufferManager()).text(),
                  c.refusal);
        if (c.conversion != 0) {
            EXPECT_EQ(request.m_pxlConvAlgo, c.conversion);
        }
    }
}

TEST_F(RequestTest, DecoderWritesIntoTheFinalBufferOnlyWhereTheLayoutIsItsOwn) {
    struct Case {
        const char* what;
        void (*change)(TestRequest& request, int32_t& rowBytes);
    };
    const Case cases[] = {
        {"longer rows", [](TestRequest&, int32_t& rowBytes) { rowBytes += 4; }},
        {"upwards", [](TestRequest&, int32_t& rowBytes) { rowBytes = -rowBytes; }},
        {"a part", [](TestRequest& r, int32_t&) { r.m_renderRect.left = 1; }},
        {"more than the clip has", [](TestRequest& r, int32_t&) { r.m_isOver = true; }},
    };
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    EXPECT_FALSE(makeRequest(*clip)->m_bufferManager->m_ownsProcessedBuffer);
    for (const Case& c : cases) {
        const auto request = makeRequest(*clip);
        auto rowBytes = static_cast<int32_t>(clip->m_width * 4);
        c.change(*request, rowBytes);
        EXPECT_FALSE(request
                         ->setup(0, 1, request->pixels.data(), rowBytes, brPixelFormat::BGRA_8_LOW,
                                 m_manager->createBufferManager())
                         .failed);
        EXPECT_TRUE(request->m_bufferManager->m_ownsProcessedBuffer) << c.what;
    }
}

TEST_F(RequestTest, EqualityIgnoresOnlyTheJokerQueue) {
    TestRequest a;
    TestRequest b;
    EXPECT_TRUE(a.isSameRequest(b));
    b.m_queueId = 3;
    EXPECT_FALSE(a.isSameRequest(b));
    a.m_queueId = brAnyQueueId;
    EXPECT_TRUE(a.isSameRequest(b) && b.isSameRequest(a));
    a.m_hasCustomSettings = b.m_hasCustomSettings = true;
    EXPECT_TRUE(a.isSameRequest(b));
    b.m_frameSettings.exposure = 0.5f;
    EXPECT_FALSE(a.isSameRequest(b));
}

TEST_F(RequestTest, BuffersAreReplacedOnlyWhenTooSmall) {
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    const auto request = makeRequest(*clip, brPixelFormat::BGRA_8_LOW, 4);
    const auto run = [&] {
        request->m_isFinished = false;
        EXPECT_EQ(m_manager->ProcessFrameSync(request), 0);
        return m_decoder.occurrencesOf("IBlackmagicRawResourceManager::CreateResource");
    };
    EXPECT_EQ(run(), 4u);
    EXPECT_EQ(run(), 4u) << "a second frame of the same size needs nothing new";
    --request->m_bufferManager->m_frameState.capacity;
    EXPECT_EQ(run(), 5u) << "one byte more does";

    // A caller's buffer that is too small is bypassed: the decoder writes into one of our own.
    brBufferManager& buffers = *request->m_bufferManager;
    const auto bypassing = makeRequest(*clip);
    void* const callers = bypassing->m_bufferManager->m_processedBuffer.resource;
    --bypassing->m_bufferManager->m_processedBuffer.capacity;
    m_manager->AddProcessFrameAsync(bypassing);
    m_manager->FlushQueue();
    EXPECT_TRUE(bypassing->m_processDone && bypassing->m_bufferManager->m_ownsProcessedBuffer);
    EXPECT_NE(bypassing->m_bufferManager->m_processedBuffer.resource, callers);

    // A buffer whose release fails is kept; one that cannot be made anew holds and claims nothing.
    m_decoder.reset();
    m_decoder.arm({"IBlackmagicRawResourceManager::ReleaseResource", 1, Kind::fail, E_FAIL});
    --buffers.m_bitStream.capacity;
    void* const kept = buffers.m_bitStream.resource;
    run();
    EXPECT_EQ(request->m_errorMessage,
              "(5) Impossible to Release current BitStream Resource - " + hresultText(E_FAIL));
    EXPECT_EQ(buffers.m_bitStream.resource, kept);
    request->m_errorCode = 0;
    m_decoder.reset();
    m_decoder.arm({"IBlackmagicRawResourceManager::CreateResource", 1, Kind::fail, E_OUTOFMEMORY});
    run();
    EXPECT_EQ(buffers.m_bitStream.resource, nullptr);
    EXPECT_EQ(buffers.m_bitStream.capacity, 0u);
}

TEST_F(RequestTest, CustomSettingsAndLutReachTheDecoder) {
    ASSERT_EQ(init(), 0);
    m_decoder.setClipsHaveLut(true);
    const auto clip = addClip(m_clipPath);
    const auto request = makeRequest(*clip);
    request->m_hasCustomSettings = true;
    request->m_frameSettings.iso = 1200;
    request->cloneProcessingAttributes(*clip);
    EXPECT_EQ(m_manager->ProcessFrameSync(request), 0);
    EXPECT_EQ(request->m_errorMessage, "");
    const ReferenceDecoderAccount account = m_decoder.account();
    EXPECT_EQ(account.statesWithClipAttributes, 1);
    EXPECT_EQ(account.statesWithFrameAttributes, 1);
    EXPECT_EQ(account.jobsWithLut, 1);
    double iso = 0;
    for (const ReferenceDecoderAttribute& sent : m_decoder.sentAttributes())
        if (sent.code == blackmagicRawFrameISO)
            iso = sent.number;
    EXPECT_EQ(iso, 1200);

    // A refused attribute ends the request, in the stage that sends it.
    m_decoder.setAttributeRule({blackmagicRawFrameISO, E_FAIL, S_OK, S_OK, 0});
    m_request = makeRequest(*clip);
    m_request->m_hasCustomSettings = true;
    m_request->cloneProcessingAttributes(*clip);
    m_manager->ProcessFrameSync(m_request);
    EXPECT_EQ(m_request->m_errorMessage, "(3) Setting ISO Attribute failed : " + hresultText(E_FAIL));
}

TEST_F(RequestTest, GpuRoadGivesThePixelsOfTheClip) {
    const HMODULE runtime = LoadLibraryW(utf8ToUtf16(CUDA_RUNTIME_FOLDER "/cudart64_110.dll").c_str());
    ASSERT_TRUE(runtime);
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
    FreeLibrary(runtime);
}

} // namespace
