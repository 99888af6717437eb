// What counts as a clip, and what a file that isn't a good one does.
#include "DecoderFixture.h"

using ClipFileTest = DecoderTest;

// Faults: a malformed file opened, frames counted wrongly, a cut frame offered as whole.
TEST_F(ClipFileTest, BadFilesAreRefusedAndFramesCounted) {
    const std::string pixels(12, 'x'), frame = "P6 2 2 255\n" + pixels;
    const std::string longer = "P6\n# a comment\n2 2 255\n" + pixels;
    Decoder decoder;
    ComPtr<IBlackmagicRawClip> clip;
    for (const std::string header :
         {"", "P6 2 2 255", "P6 # endless", "P3 2 2 255\n", "P6 0 2 255\n", "P6 x 2 255\n", "P6 2 2 65536\n",
          "P6 4294967298 2 255\n", "P6 65535 65535 65535\n", "P6 2 2 255x", "P6\n# fps nan\n2 2 255\n"})
        EXPECT_LT(decoder.open(clipFile(header.ends_with('\n') ? header + pixels : header), &clip), 0)
            << header;
    for (const std::string& bytes : {frame + "P6 2 3 255\n" + pixels, frame + "rubbish"})
        EXPECT_LT(decoder.open(clipFile(bytes), &clip), 0) << bytes;
    EXPECT_EQ(decoder.open(m_folder.path() / "missing", &clip), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(decoder.open(m_folder.path(), &clip), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));

    const struct {
        std::string bytes;
        uint64_t frames;
        HRESULT lastFrame;
        float rate = 24;
    } cases[] = {{"P6 2 2 255\n", 0, E_INVALIDARG},
                 {frame.substr(0, 12), 1, E_FAIL},
                 {"P6\n#x\n#fps 25\n2#y\n2 255\n" + pixels, 1, S_OK, 25},
                 {"P6\n# fps 23.976\n2 2 255\n" + pixels + frame + frame, 3, S_OK, 23.976f},
                 {frame + longer + frame + longer, 4, S_OK},
                 {frame + frame + frame.substr(0, 3), 3, E_FAIL},
                 {frame + longer + frame + longer.substr(0, 30), 4, E_FAIL}};
    for (const auto& c : cases) {
        ComPtr<IBlackmagicRawClipEx> clipEx;
        uint64_t frames = 99;
        uint32_t bytes = 0;
        float rate = 0;
        ASSERT_EQ(decoder.open(clipFile(c.bytes), clip.ReleaseAndGetAddressOf()), S_OK) << c.bytes;
        ok(clip.As(&clipEx));
        ok(clip->GetFrameCount(&frames));
        ok(clip->GetFrameRate(&rate));
        EXPECT_TRUE(frames == c.frames && rate == c.rate) << frames << " " << rate << " " << c.bytes;
        EXPECT_EQ(clipEx->GetBitStreamSizeBytes(frames - 1, &bytes), c.lastFrame) << c.bytes;
    }
    m_expectClean = false; // sizes of frames that are not there were asked for
}

// Fault: a frame that was damaged or cut after the clip was opened handed on as good.
TEST_F(ClipFileTest, ADamagedFrameFailsItsReadJob) {
    for (const bool cut : {false, true}) {
        std::string bytes = testClipBytes({8, 8, 255, 4});
        const size_t third = bytes.size() / 2;
        if (!cut)
            bytes[third + 1] = '5';
        const auto path = clipFile(bytes);
        Decoder decoder;
        ComPtr<IBlackmagicRawClip> clip;
        ok(decoder.open(path, &clip));
        if (cut)
            std::filesystem::resize_file(path, third + 20);
        Request request{.frame = 2};
        EXPECT_LT(decoder.decode(clip.Get(), request), 0);
    }
}
