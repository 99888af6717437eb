// What counts as a clip, and what a file that isn't a good one does.
#include "DecoderFixture.h"

namespace {

class ClipFileTest : public DecoderTest {
protected:
    /// Opens the file; fills the frame count, and the result of the size query of the last frame.
    HRESULT open(const std::filesystem::path& path, uint64_t& frames, float& rate, HRESULT& lastFrame) {
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> clip;
        const HRESULT result = decoder.open(path, false, &clip);
        if (FAILED(result))
            return result;
        clip->GetFrameCount(&frames);
        clip->GetFrameRate(&rate);
        ComPtr<IBlackmagicRawClipEx> clipEx;
        clip.As(&clipEx);
        uint32_t bytes = 0;
        lastFrame = clipEx->GetBitStreamSizeBytes(frames - 1, &bytes);
        return result;
    }
};

TEST_F(ClipFileTest, BadFilesAreRefusedOnOpening) {
    const std::string pixels(12, 'x');
    const std::string good = "P6 2 2 255\n" + pixels;
    const std::string cases[] = {"",
                                 "P",
                                 "P6",
                                 "P6\n2",
                                 "P6 2 2",
                                 "P6 2 2 255",
                                 "P6 # endless",
                                 "hello, I am no clip at all",
                                 "P3 2 2 255\n" + pixels,
                                 "P62 2 255\n" + pixels,
                                 "P6 -2 2 255\n" + pixels,
                                 "P6 x 2 255\n" + pixels,
                                 "P6 0 2 255\n" + pixels,
                                 "P6 2 0 255\n" + pixels,
                                 "P6 2 2 0\n" + pixels,
                                 "P6 2 2 65536\n" + pixels,
                                 "P6 65536 1 255\n",
                                 "P6 4294967298 2 255\n",
                                 "P6 99999999999999999999 2 255\n",
                                 "P6 40000 40000 255\n",
                                 "P6 65535 65535 65535\n",
                                 "P6 20000 20000 65535\n",
                                 "P6 2 2 255x" + pixels,
                                 "P6\n# fps 0\n2 2 255\n" + pixels,
                                 "P6\n# fps -1\n2 2 255\n" + pixels,
                                 "P6\n# fps nan\n2 2 255\n" + pixels,
                                 "P6\n# fps quick\n2 2 255\n" + pixels,
                                 "P6\n#" + std::string(5000, ' ') + "\n2 2 255\n" + pixels,
                                 good + "P6 2 3 255\n" + pixels,
                                 good + "P6 2 2 254\n" + pixels,
                                 good + "\n",
                                 good + "rubbish",
                                 good + good + "P5 2 2 255\n" + pixels,
                                 std::string(5000, '\0'),
                                 "P6" + std::string(5000, ' ')};
    for (const std::string& bytes : cases) {
        uint64_t frames = 0;
        float rate = 0;
        HRESULT ignored = S_OK;
        EXPECT_LT(open(clipFile(bytes), frames, rate, ignored), 0) << bytes.substr(0, 60);
    }
    m_session.reset();
}

TEST_F(ClipFileTest, PathsThatAreNoFileAreRefusedByTheirCause) {
    Decoder decoder(false);
    ComPtr<IBlackmagicRawClip> clip;
    EXPECT_EQ(decoder.open(m_folder.path() / "missing.braw", false, &clip),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(decoder.open(m_folder.path() / "no" / "missing.braw", false, &clip),
              HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(decoder.open(m_folder.path(), false, &clip), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_LT(decoder.open("NUL", false, &clip), 0);
    EXPECT_EQ(decoder.open("", false, &clip), E_INVALIDARG);
    EXPECT_EQ(decoder.codec->OpenClip(nullptr, &clip), E_INVALIDARG);
    EXPECT_EQ(clip.Get(), nullptr);
}

// Faults: frames counted wrongly, a cut frame offered as whole, frames with headers of different lengths.
TEST_F(ClipFileTest, FramesAreCountedAndACutOneTold) {
    const std::string frame = "P6 2 2 255\n" + std::string(12, 'x');
    const std::string longer = "P6\n# a comment\n2 2 255\n" + std::string(12, 'x');
    const struct {
        std::string bytes;
        uint64_t frames;
        HRESULT lastFrame;
        float rate = 24.0f;
    } cases[] = {{"P6 2 2 255\n", 0, E_INVALIDARG},
                 {frame, 1, S_OK},
                 {frame.substr(0, 12), 1, E_FAIL},
                 {"P6\n#x\n#fps 25\n2#y\n2 255\n" + std::string(12, 'x'), 1, S_OK, 25.0f},
                 {"P6\n# fps 23.976\n2 2 255\n" + std::string(12, 'x') + frame + frame, 3, S_OK, 23.976f},
                 {longer + frame, 2, S_OK},
                 {frame + longer + frame + longer, 4, S_OK},
                 {frame + frame.substr(0, 3), 2, E_FAIL},
                 {frame + frame + frame.substr(0, 3), 3, E_FAIL},
                 {frame + frame + frame.substr(0, 15), 3, E_FAIL},
                 {frame + longer + frame + longer.substr(0, 30), 4, E_FAIL},
                 {frame + longer + frame.substr(0, 1), 3, E_FAIL}};
    for (const auto& c : cases) {
        uint64_t frames = 99;
        float rate = 0;
        HRESULT lastFrame = E_PENDING;
        EXPECT_EQ(open(clipFile(c.bytes), frames, rate, lastFrame), S_OK) << c.bytes;
        EXPECT_EQ(frames, c.frames) << c.bytes;
        EXPECT_EQ(rate, c.rate) << c.bytes;
        EXPECT_EQ(lastFrame, c.lastFrame) << c.bytes;
    }
}

// Fault: a frame that was damaged or cut after the clip was opened handed on as good.
TEST_F(ClipFileTest, ADamagedFrameFailsItsReadJob) {
    const TestClip clip{8, 8, 255, 4};
    for (const bool cut : {false, true}) {
        std::string bytes = testClipBytes(clip);
        const size_t third = bytes.size() / 2;
        if (!cut)
            bytes[third + 1] = '5';
        const auto path = clipFile(bytes);
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> opened;
        ASSERT_EQ(decoder.open(path, false, &opened), S_OK);
        if (cut)
            std::filesystem::resize_file(path, third + 20);
        Request request{.frame = 2};
        EXPECT_LT(decoder.decode(opened.Get(), request), 0);
        EXPECT_EQ(request.stage, "read");
    }
}

TEST_F(ClipFileTest, LongAndForeignPathsOpen) {
    const std::wstring prefix = L"\\\\?\\";
    std::wstring path = std::filesystem::path(m_folder.path()).make_preferred().wstring();
    std::vector<std::wstring> folders;
    for (int i = 0; i < 6; ++i) {
        path += L"\\" + std::wstring(60, L'\xE4');
        folders.insert(folders.begin(), prefix + path);
        ASSERT_TRUE(CreateDirectoryW((prefix + path).c_str(), nullptr)) << GetLastError();
    }
    path += L"\\clip \xD83C\xDFAC.braw";
    ASSERT_TRUE(CopyFileW(clipFile(TestClip{}).make_preferred().c_str(), (prefix + path).c_str(), TRUE));
    {
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> clip;
        EXPECT_EQ(decoder.open(path, false, &clip), S_OK);
    }
    EXPECT_TRUE(DeleteFileW((prefix + path).c_str()));
    for (const std::wstring& folder : folders)
        EXPECT_TRUE(RemoveDirectoryW(folder.c_str()));
}

TEST_F(ClipFileTest, ResolutionsAndScalesAgree) {
    for (const TestClip& clip : {TestClip{64, 48}, TestClip{61, 37}, TestClip{1, 1}}) {
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> opened;
        ComPtr<IBlackmagicRawClipResolutions> resolutions;
        ASSERT_EQ(decoder.open(clipFile(clip), false, &opened), S_OK);
        ASSERT_EQ(opened.As(&resolutions), S_OK);
        uint32_t count = 0;
        ASSERT_EQ(resolutions->GetResolutionCount(&count), S_OK);
        ASSERT_EQ(count, 4u);
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t width = 0, height = 0, backWidth = 0, backHeight = 0;
            BlackmagicRawResolutionScale scale = 0;
            ASSERT_EQ(resolutions->GetResolution(i, &width, &height), S_OK);
            EXPECT_EQ(width, expectedSide(clip.width, 1u << i));
            ASSERT_EQ(resolutions->GetClosestScaleForResolution(width, height, &scale), S_OK);
            ASSERT_EQ(resolutions->GetClosestResolutionForScale(scale, &backWidth, &backHeight), S_OK);
            EXPECT_TRUE(width == backWidth && height == backHeight);
        }
    }
}

} // namespace
