// Pixels: what comes out of the whole chain of jobs, against a plain reference.
#include <utility>

#include "DecoderFixture.h"

using DecodingTest = DecoderTest;
using Manners = ReferenceDecoderManners;

namespace {
/// How many pixels of a decoded 'bgra' picture differ from what they must be.
size_t wrongPixels(const Request& request, const TestClip& clip, uint32_t factor, bool flipped) {
    uint32_t width = expectedSide(clip.width, factor), height = expectedSide(clip.height, factor);
    if (clip.swapsSides())
        std::swap(width, height);
    if (request.width != width || request.height != height || request.processed.size() < 4 * width * height)
        return size_t{width} * height;
    size_t wrong = 0;
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const auto expected = expectedPixel(clip, factor, x, flipped ? height - 1 - y : y,
                                                static_cast<uint32_t>(request.frame));
            wrong += std::memcmp(&request.processed[4 * (y * width + x)], expected.data(), 4) != 0;
        }
    return wrong;
}
} // namespace

// Faults: rounding, edges of sizes that don't divide, byte order, scaling of odd maxima, rows upside down or
// not, the resolutions told differing from what comes out.
TEST_F(DecodingTest, EveryScaleDepthAndSizeMatchesTheReference) {
    const BlackmagicRawResolutionScale scales[] = {
        blackmagicRawResolutionScaleFull, blackmagicRawResolutionScaleHalf,
        blackmagicRawResolutionScaleQuarter, blackmagicRawResolutionScaleEighth};
    for (const bool flipped : {false, true})
        for (const auto& [width, height] : {std::pair(64u, 48u), {61u, 37u}, {1u, 1u}, {7u, 130u}})
            for (const uint32_t maximum : {255u, 65535u, 100u, 1000u}) {
                const TestClip clip{width, height, maximum};
                Decoder decoder;
                ComPtr<IBlackmagicRawClip> opened;
                ComPtr<IBlackmagicRawClipResolutions> resolutions;
                ok(decoder.open(clipFile(clip), &opened, flipped));
                ok(opened.As(&resolutions));
                for (uint32_t i = 0; i < 4; ++i) {
                    Request request{.scale = scales[i]};
                    ok(decoder.decode(opened.Get(), request));
                    EXPECT_EQ(wrongPixels(request, clip, 1u << i, flipped), 0u)
                        << width << "x" << height << " of " << maximum << " at 1/" << (1u << i) << flipped;
                    uint32_t toldWidth = 0, toldHeight = 0;
                    ok(resolutions->GetResolution(i, &toldWidth, &toldHeight));
                    EXPECT_TRUE(toldWidth == request.width && toldHeight == request.height);
                }
            }
}

// Faults: an axis mirrored or sides swapped where they must not be; rows ordered before turning instead of
// after; sizes told the other way than asked for.
TEST_F(DecodingTest, StoredInAnyOrientationComesOutUpright) {
    for (uint32_t orientation = 1; orientation <= 8; ++orientation)
        for (const bool flipped : {false, true})
            for (const bool before : {false, true}) {
                SCOPED_TRACE(orientation);
                m_session.setManners(before ? Manners::sizeBeforeTurning : Manners::none);
                const TestClip clip{.width = 61, .height = 37, .orientation = orientation};
                Decoder decoder;
                ComPtr<IBlackmagicRawClip> opened;
                Request request{.scale = blackmagicRawResolutionScaleHalf};
                ok(decoder.open(clipFile(clip), &opened, flipped));
                ok(decoder.decode(opened.Get(), request));
                EXPECT_EQ(wrongPixels(request, clip, 2, flipped), 0u) << "flipped " << flipped;
                uint32_t width = 0, height = 0;
                ok(opened->GetWidth(&width));
                ok(opened->GetHeight(&height));
                EXPECT_EQ(width > height, before || !clip.swapsSides());
            }
}

// Faults: manners that change the picture, break the account or end a caller who keeps the contract.
TEST_F(DecodingTest, MannersChangeNothingForWhoKeepsTheContract) {
    const TestClip clip{61, 37};
    for (uint32_t bit = 0; bit <= 13; ++bit) {
        const auto manners = static_cast<Manners>(bit < 13 ? 1u << bit : 0x1FFFu);
        SCOPED_TRACE(static_cast<uint32_t>(manners));
        m_session.setManners(manners);
        Decoder decoder;
        EXPECT_EQ(decoder.references, manners & Manners::callbackIsNotCounted ? 1 : 2);
        ComPtr<IBlackmagicRawClip> opened;
        std::vector<Request> requests(2);
        ok(decoder.open(clipFile(clip), &opened));
        for (Request& request : requests)
            decoder.submit(opened.Get(), request);
        if (manners & Manners::submitCompletesFirst) {
            EXPECT_NE(requests[1].result, E_PENDING);
        }
        EXPECT_EQ(decoder.codec->FlushJobs() != S_OK, manners & Manners::otherSuccessCodes);
        for (Request& request : requests)
            EXPECT_EQ(wrongPixels(request, clip, 1, false), 0u);
        if (manners & Manners::changingThreads) {
            EXPECT_EQ(decoder.threads.size(), 6u);
        }
        ComPtr<IBlackmagicRawClipResolutions> resolutions;
        uint32_t width = 0, height = 0;
        ok(opened.As(&resolutions));
        ok(resolutions->GetResolution(0, &width, &height));
        EXPECT_EQ(width != clip.width,
                  manners & (Manners::ascendingResolutions | Manners::shuffledResolutions));
        EXPECT_EQ(requests[0].processed.size(),
                  61u * 37 * 4 + (manners & Manners::buffersNeedMore ? 1000 : 0));
    }
}

// Faults: a codec that goes although its resource manager holds it; a last release that waits all the same.
TEST_F(DecodingTest, TheCodecMayBeHeldAndMayNotWait) {
    m_session.setManners(Manners::resourceManagerHoldsCodec | Manners::lastReleaseDoesNotWait);
    m_session.setReadDelay(300);
    m_session.arm({"IBlackmagicRawCallback::ReadComplete", 0, ReferenceDecoderFaultKind::drop});
    Decoder decoder;
    Request request;
    ComPtr<IBlackmagicRawClip> opened;
    ok(decoder.open(clipFile(TestClip{}), &opened));
    decoder.submit(opened.Get(), request);
    opened.Reset();
    decoder.codec.Reset();
    std::exchange(decoder.flow, nullptr)->Release();
    EXPECT_EQ(m_session.account().liveObjects, 4) << "factory, job, resource manager, and the codec still";
    decoder.resources.Reset();
    EXPECT_EQ(m_session.account().liveObjects, 2);
    EXPECT_EQ(m_session.account().jobsCompleted, 0) << "the last release has waited";
    while (decoder.references > 1)
        Sleep(1);
    EXPECT_EQ(m_session.account().jobsCompleted, 1);
}

// Faults: channels swapped, planes in the wrong order, wrong range, alpha not opaque.
TEST_F(DecodingTest, EveryResourceFormatHasItsLayoutAndRange) {
    const struct {
        BlackmagicRawResourceFormat code;
        size_t bytes;      ///< of a sample; 4: float
        std::string order; ///< of the channels in memory
        bool isPlanar = false;
    } cases[] = {{blackmagicRawResourceFormatRGBAU8, 1, "rgba"},
                 {blackmagicRawResourceFormatBGRAU8, 1, "bgra"},
                 {blackmagicRawResourceFormatRGBAU16, 2, "rgba"},
                 {blackmagicRawResourceFormatBGRAU16, 2, "bgra"},
                 {blackmagicRawResourceFormatRGBU16, 2, "rgb"},
                 {blackmagicRawResourceFormatRGBU16Planar, 2, "rgb", true},
                 {blackmagicRawResourceFormatRGBF32, 4, "rgb"},
                 {blackmagicRawResourceFormatRGBF32Planar, 4, "rgb", true},
                 {blackmagicRawResourceFormatBGRAF32, 4, "bgra"}};
    for (const uint32_t maximum : {255u, 4095u})
        for (const auto& format : cases) {
            const TestClip clip{9, 5, maximum};
            Decoder decoder;
            ComPtr<IBlackmagicRawClip> opened;
            Request request{.format = format.code};
            ok(decoder.open(clipFile(clip), &opened));
            ok(decoder.decode(opened.Get(), request));
            const uint32_t pixels = clip.width * clip.height;
            const size_t channels = format.order.size();
            ASSERT_EQ(request.processed.size(), pixels * channels * format.bytes);
            for (uint32_t i = 0; i < pixels; ++i)
                for (size_t c = 0; c < channels; ++c) {
                    const int channel = static_cast<int>(std::string("rgba").find(format.order[c]));
                    const uint32_t sample =
                        channel == 3 ? maximum : testSample(clip, 0, i % clip.width, i / clip.width, channel);
                    const float number = static_cast<float>(sample) / static_cast<float>(maximum);
                    const uint32_t integer = scaledSample(sample, maximum, format.bytes == 1 ? 255 : 65535);
                    const size_t place = (format.isPlanar ? c * pixels + i : i * channels + c) * format.bytes;
                    ASSERT_EQ(std::memcmp(&request.processed[place],
                                          format.bytes == 4 ? static_cast<const void*>(&number) : &integer,
                                          format.bytes),
                              0)
                        << "pixel " << i << " channel " << c << " of format " << std::hex << format.code;
                }
        }
}

// Faults: offsets of later frames, the file held open, a flush or last release that returns before the jobs
// which callbacks submit, jobs of several requests mixed up.
TEST_F(DecodingTest, FlushAndLastReleaseWaitForAllThatCallbacksSubmit) {
    const TestClip clip{40, 30, 255, 16, "23.976"};
    for (const bool flush : {true, false}) {
        const auto path = clipFile(clip);
        std::vector<Request> requests(16);
        m_session.reset();
        m_session.setJobDelay(3);
        {
            Decoder decoder;
            ComPtr<IBlackmagicRawClip> opened;
            ok(decoder.codec->FlushJobs()); // with nothing to wait for
            ok(decoder.open(path, &opened));
            EXPECT_TRUE(std::filesystem::remove(path));
            for (uint32_t i = 0; i < 16; ++i) {
                requests[i].frame = i;
                decoder.submit(opened.Get(), requests[i]);
            }
            opened.Reset(); // the jobs hold what they need
            if (flush) {
                ok(decoder.codec->FlushJobs());
                EXPECT_EQ(m_session.account().jobsCompleted, 48);
            }
        }
        for (const Request& request : requests)
            EXPECT_EQ(wrongPixels(request, clip, 1, false), 0u) << "frame " << request.frame;
    }
}
