// The picture: its size, its place, which way up it is, and every pixel's colour.
#include <cstdlib>
#include <thread>

#include "HandlerFixture.h"

namespace {
class Picture : public HandlerTest {};

TEST_F(Picture, SizeFollowsTheDecodersResolutions) {
    constexpr struct {
        TestPicture clip;
        UINT asked;
        SIZE size;
    } cases[] = {
        {{6144, 3456}, 256, {768, 432}}, {{6144, 3456}, 500, {1536, 864}}, {{6144, 3456}, 1, {768, 432}},
        {{64, 64}, 8, {8, 8}},           {{64, 64}, 9, {16, 16}},          {{64, 64}, 33, {64, 64}},
        {{64, 64}, 64, {64, 64}},        {{64, 64}, 65, {65, 65}},         {{1, 1}, 1, {1, 1}},
    };
    TestPicture written{};
    std::wstring path;
    for (const auto& [clip, asked, size] : cases) {
        SCOPED_TRACE(testing::Message() << clip.width << " x " << clip.height << " for " << asked);
        if (clip.width != written.width) {
            path = writeClip(m_folder.path() / "clip.braw", clip);
            written = clip;
        }
        const Answer answer = ask(path, asked);
        EXPECT_RESULT(S_OK, answer.result);
        EXPECT_EQ(WTSAT_ARGB, answer.alpha);
        EXPECT_EQ(size.cx, answer.size.cx);
        EXPECT_EQ(size.cy, answer.size.cy);
    }
}

TEST_F(Picture, EveryPixelOfAFullScalePictureIsTheSources) {
    constexpr TestPicture clip{61, 47}; // no side is a multiple of anything
    const Answer answer = ask(writeClip(m_folder.path() / "clip.braw", clip), 40);
    ASSERT_EQ(61, answer.size.cx);
    ASSERT_EQ(47, answer.size.cy);
    for (uint32_t y = 0; y < clip.height; ++y)
        for (uint32_t x = 0; x < clip.width; ++x) {
            const uint8_t* const pixel = answer.pixel(static_cast<int>(x), static_cast<int>(y));
            ASSERT_TRUE(pixel[0] == clip.value(x, y, 2) && pixel[1] == clip.value(x, y, 1) &&
                        pixel[2] == clip.value(x, y, 0) && pixel[3] == 255)
                << x << ", " << y;
        }
}

/// Four quarters of one colour each, which no scaling may mix up.
std::wstring writeQuarters(const std::filesystem::path& path, uint32_t width, uint32_t height) {
    std::string bytes = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x)
            bytes += 2 * y < height ? (2 * x < width ? "\xFF\x10\x20" : "\x30\xF0\x40")
                                    : (2 * x < width ? "\x50\x60\xE0" : "\x70\x71\x11");
    writeFileBytes(path, bytes);
    return path.wstring();
}

void expectColour(const Answer& answer, int x, int y, int red, int green, int blue, int alpha = 255) {
    const uint8_t* const pixel = answer.pixel(x, y);
    EXPECT_TRUE(pixel[2] == red && pixel[1] == green && pixel[0] == blue && pixel[3] == alpha)
        << x << ", " << y << " is " << int{pixel[2]} << " " << int{pixel[1]} << " " << int{pixel[0]} << " "
        << int{pixel[3]};
}

TEST_F(Picture, IsUprightAtEveryScale) {
    const std::wstring path = writeQuarters(m_folder.path() / "clip.braw", 128, 64);
    for (const UINT asked : {8u, 16u, 32u, 64u}) {
        SCOPED_TRACE(asked);
        const Answer answer = ask(path, asked);
        const int width = answer.size.cx, height = answer.size.cy;
        ASSERT_EQ(static_cast<int>(asked), height);
        expectColour(answer, 0, 0, 0xFF, 0x10, 0x20);
        expectColour(answer, width - 1, 0, 0x30, 0xF0, 0x40);
        expectColour(answer, 0, height - 1, 0x50, 0x60, 0xE0);
        expectColour(answer, width - 1, height - 1, 0x70, 0x71, 0x11);
    }
}

TEST_F(Picture, LargerThanTheClipTheFrameIsWholeAndCentred) {
    // The second one fits no resolution in one direction only, and is shrunk in the end.
    constexpr struct {
        TestPicture clip;
        UINT asked;
        RECT frame;
    } cases[] = {
        {{40, 20}, 100, {0, 25, 100, 75}},
        {{400, 20}, 100, {0, 48, 100, 53}},
        {{20, 40}, 101, {25, 0, 76, 101}},
        {{64, 32}, 64, {0, 16, 64, 48}},
    };
    for (const auto& [clip, asked, frame] : cases) {
        SCOPED_TRACE(testing::Message() << clip.width << " x " << clip.height << " for " << asked);
        const Answer answer =
            ask(writeQuarters(m_folder.path() / "clip.braw", clip.width, clip.height), asked);
        ASSERT_EQ(static_cast<int>(asked), answer.size.cx);
        ASSERT_EQ(static_cast<int>(asked), answer.size.cy);
        for (int y = 0; y < answer.size.cy; ++y)
            for (int x = 0; x < answer.size.cx; ++x) {
                const bool inFrame = x >= frame.left && x < frame.right && y >= frame.top && y < frame.bottom;
                ASSERT_EQ(inFrame ? 255 : 0, answer.pixel(x, y)[3]) << x << ", " << y;
            }
        expectColour(answer, frame.left, frame.top, 0xFF, 0x10, 0x20);
        expectColour(answer, frame.right - 1, frame.top, 0x30, 0xF0, 0x40);
        expectColour(answer, frame.left, frame.bottom - 1, 0x50, 0x60, 0xE0);
        expectColour(answer, frame.right - 1, frame.bottom - 1, 0x70, 0x71, 0x11);
    }
}

TEST_F(Picture, ThumbnailsOfManyThreadsDoNotMeet) {
    m_decoder.setJobDelay(2); // so that they would
    const std::wstring path = writeClip(m_folder.path() / "clip.braw", {64, 64});
    std::atomic<int> good{0};
    std::vector<std::thread> shells;
    for (int i = 0; i < 4; ++i)
        shells.emplace_back([&] {
            const auto file = m_handler->provider();
            ComPtr<IThumbnailProvider> provider;
            file->Initialize(path.c_str(), 0);
            file.As(&provider);
            for (int j = 0; j < 8; ++j) {
                OwnedBitmap bitmap;
                WTS_ALPHATYPE alpha{};
                good += provider->GetThumbnail(16, bitmap.put(), &alpha) == S_OK;
            }
        });
    for (std::thread& shell : shells)
        shell.join();
    EXPECT_EQ(32, good);
}
} // namespace
