// Pixels: what comes out of the whole chain of jobs, against a plain reference.
#include "DecoderFixture.h"

namespace {

struct ScaleCase {
    BlackmagicRawResolutionScale code;
    uint32_t factor;
};
constexpr ScaleCase kScaleCases[] = {{blackmagicRawResolutionScaleFull, 1},
                                     {blackmagicRawResolutionScaleHalf, 2},
                                     {blackmagicRawResolutionScaleQuarter, 4},
                                     {blackmagicRawResolutionScaleEighth, 8}};

/// How many pixels of a decoded 'bgra' picture differ from what they must be.
size_t wrongPixels(const Request& request, const TestClip& clip, uint32_t factor, bool flipped) {
    const uint32_t width = expectedSide(clip.width, factor), height = expectedSide(clip.height, factor);
    if (request.width != width || request.height != height || request.processed.size() != 4 * width * height)
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

class DecodingTest : public DecoderTest {};

// Faults: rounding, edges of sizes that don't divide, byte order, scaling of odd maxima, rows upside down or
// not, the GPU's road differing from the CPU's.
TEST_F(DecodingTest, EveryScaleDepthAndSizeMatchesTheReference) {
    for (const bool onGpu : {false, true}) {
        Decoder decoder(onGpu);
        for (const TestClip& picture :
             {TestClip{64, 48}, TestClip{61, 37}, TestClip{1, 1}, TestClip{7, 130}, TestClip{130, 7}})
            for (const uint32_t maximum : {255u, 65535u, 1u, 100u, 256u, 1000u})
                for (const bool flipped : {false, true}) {
                    TestClip clip = picture;
                    clip.maximum = maximum;
                    ComPtr<IBlackmagicRawClip> opened;
                    ASSERT_EQ(decoder.open(clipFile(clip), flipped, &opened), S_OK);
                    for (const ScaleCase& scale : kScaleCases) {
                        Request request{.scale = scale.code};
                        EXPECT_EQ(decoder.decode(opened.Get(), request), S_OK);
                        EXPECT_EQ(wrongPixels(request, clip, scale.factor, flipped), 0u)
                            << clip.width << "x" << clip.height << " of " << maximum << " at 1/"
                            << scale.factor << (flipped ? " flipped" : "") << (onGpu ? " on the GPU" : "");
                        EXPECT_EQ(request.type, onGpu ? kDevice : kHost);
                    }
                }
    }
}

struct FormatCase {
    BlackmagicRawResourceFormat code;
    int bytesPerSample; ///< 4: float
    std::string order;  ///< of the channels in memory
    bool isPlanar = false;
};

double sampleAt(const FormatCase& format, const std::vector<uint8_t>& bytes, size_t index) {
    const uint8_t* place = bytes.data() + index * static_cast<size_t>(format.bytesPerSample);
    uint16_t word = 0;
    float number = 0;
    switch (format.bytesPerSample) {
    case 1:
        return *place;
    case 2:
        std::memcpy(&word, place, sizeof word);
        return word;
    default:
        std::memcpy(&number, place, sizeof number);
        return number;
    }
}

// Faults: channels swapped, planes in the wrong order, wrong range, alpha not opaque.
TEST_F(DecodingTest, EveryResourceFormatHasItsLayoutAndRange) {
    const FormatCase cases[] = {{blackmagicRawResourceFormatRGBAU8, 1, "rgba"},
                                {blackmagicRawResourceFormatBGRAU8, 1, "bgra"},
                                {blackmagicRawResourceFormatRGBAU16, 2, "rgba"},
                                {blackmagicRawResourceFormatBGRAU16, 2, "bgra"},
                                {blackmagicRawResourceFormatRGBU16, 2, "rgb"},
                                {blackmagicRawResourceFormatRGBU16Planar, 2, "rgb", true},
                                {blackmagicRawResourceFormatRGBF32, 4, "rgb"},
                                {blackmagicRawResourceFormatRGBF32Planar, 4, "rgb", true},
                                {blackmagicRawResourceFormatBGRAF32, 4, "bgra"}};
    for (const bool onGpu : {false, true})
        for (const uint32_t maximum : {255u, 4095u})
            for (const FormatCase& format : cases) {
                const TestClip clip{9, 5, maximum};
                Decoder decoder(onGpu);
                ComPtr<IBlackmagicRawClip> opened;
                ASSERT_EQ(decoder.open(clipFile(clip), false, &opened), S_OK);
                Request request{.format = format.code};
                ASSERT_EQ(decoder.decode(opened.Get(), request), S_OK);
                EXPECT_EQ(request.reportedFormat, format.code);
                const size_t pixels = clip.width * clip.height, channels = format.order.size();
                ASSERT_EQ(request.processed.size(),
                          pixels * channels * static_cast<size_t>(format.bytesPerSample));
                for (size_t i = 0; i < pixels; ++i)
                    for (size_t c = 0; c < channels; ++c) {
                        const size_t channel = std::string("rgba").find(format.order[c]);
                        const uint32_t sample =
                            channel == 3 ? maximum
                                         : testSample(clip, 0, static_cast<uint32_t>(i % clip.width),
                                                      static_cast<uint32_t>(i / clip.width),
                                                      static_cast<int>(channel));
                        const double expected =
                            format.bytesPerSample == 4
                                ? double{static_cast<float>(sample) / static_cast<float>(maximum)}
                                : double(scaledSample(sample, maximum,
                                                      format.bytesPerSample == 1 ? 255 : 65535));
                        ASSERT_EQ(sampleAt(format, request.processed,
                                           format.isPlanar ? c * pixels + i : i * channels + c),
                                  expected)
                            << "pixel " << i << " channel " << format.order[c] << " of format " << std::hex
                            << format.code;
                    }
            }
}

// Faults: offsets of later frames, a first header longer than the others, the file held open or locked.
TEST_F(DecodingTest, LaterFramesAreReadFromAFileThatIsGoneMeanwhile) {
    const TestClip clip{21, 13, 255, 5, "23.976"};
    const auto path = clipFile(clip);
    Decoder decoder(false);
    ComPtr<IBlackmagicRawClip> opened;
    ASSERT_EQ(decoder.open(path, true, &opened), S_OK);
    EXPECT_TRUE(std::filesystem::remove(path));
    for (const uint64_t frame : {4u, 0u, 2u}) {
        Request request{.frame = frame};
        ASSERT_EQ(decoder.decode(opened.Get(), request), S_OK);
        EXPECT_EQ(wrongPixels(request, clip, 1, true), 0u) << "frame " << frame;
    }
}

// Faults: a flush that returns before the jobs which callbacks submit, jobs of several requests mixed up.
TEST_F(DecodingTest, FlushWaitsForAllThatCallbacksSubmit) {
    const TestClip clip{40, 30, 255, 16};
    Decoder decoder(false);
    EXPECT_EQ(decoder.codec->FlushJobs(), S_OK); // with nothing to wait for
    ComPtr<IBlackmagicRawClip> opened;
    ASSERT_EQ(decoder.open(clipFile(clip), false, &opened), S_OK);
    m_session.setJobDelay(3);
    std::vector<Request> requests(16);
    for (uint32_t i = 0; i < 16; ++i) {
        requests[i].frame = i;
        ASSERT_EQ(decoder.submit(opened.Get(), requests[i]), S_OK);
    }
    opened.Reset(); // the jobs hold what they need
    EXPECT_EQ(decoder.codec->FlushJobs(), S_OK);
    for (const Request& request : requests) {
        EXPECT_EQ(request.stage, "process");
        EXPECT_EQ(wrongPixels(request, clip, 1, false), 0u) << "frame " << request.frame;
    }
    EXPECT_EQ(m_session.account().jobsCompleted, 48);
}

// Faults: worker threads that outlive the codec, a wait for oneself.
TEST_F(DecodingTest, TheLastReleaseWaitsAndMayComeFromACallback) {
    const TestClip clip{40, 30};
    m_session.setJobDelay(5);
    Request request;
    {
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> opened;
        ASSERT_EQ(decoder.open(clipFile(clip), false, &opened), S_OK);
        ASSERT_EQ(decoder.submit(opened.Get(), request), S_OK);
    }
    EXPECT_EQ(request.stage, "process");

    Decoder decoder(false);
    ComPtr<IBlackmagicRawClip> opened;
    ASSERT_EQ(decoder.open(clipFile(clip), false, &opened), S_OK);
    IBlackmagicRaw* codec = nullptr;
    ASSERT_EQ(decoder.factory->CreateCodec(&codec), S_OK);
    ASSERT_EQ(codec->SetCallback(&decoder), S_OK);
    decoder.codec.Swap(ComPtr<IBlackmagicRaw>(codec)); // requests of the second codec; the first goes
    codec->Release();
    ComPtr<IBlackmagicRawClip> second;
    ASSERT_EQ(decoder.open(clipFile(clip), false, &second), S_OK);
    std::atomic<bool> released{false};
    Request last;
    last.onRead = [&] {
        decoder.codec.Reset();
        released = true;
    };
    ASSERT_EQ(decoder.submit(second.Get(), last), S_OK);
    while (m_session.account().jobsCompleted < 6)
        Sleep(1);
    EXPECT_TRUE(released);
    EXPECT_EQ(wrongPixels(last, clip, 1, false), 0u);
}

} // namespace
