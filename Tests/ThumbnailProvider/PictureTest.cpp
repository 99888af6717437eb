// The picture: its size, its place, which way up it is, and every pixel's colour.
#include "HandlerFixture.h"

namespace {
using Manners = ReferenceDecoderManners;

class Picture : public HandlerTest {
protected:
    /// Every pixel of an upright picture at 1/factor.
    static void expectPicture(const Answer& answer, const TestClip& clip, uint32_t factor) {
        const uint32_t width = expectedSide(clip.swapsSides() ? clip.height : clip.width, factor);
        EXPECT_EQ(width, static_cast<uint32_t>(answer.size.cx));
        EXPECT_TRUE(expectedPicture(clip, factor) == answer.pixels) << "1/" << factor;
    }
};

TEST_F(Picture, SizeFollowsTheDecodersResolutions) {
    constexpr struct {
        uint32_t width, height;
        UINT asked;
        SIZE size;
    } cases[] = {{6144, 3456, 256, {768, 432}},
                 {6144, 3456, 500, {1536, 864}},
                 {64, 64, 8, {8, 8}},
                 {64, 64, 9, {16, 16}},
                 {64, 64, 64, {64, 64}},
                 {64, 64, 65, {65, 65}},
                 {1, 1, 1, {1, 1}}};
    for (const Manners order : {Manners::none, Manners::ascendingResolutions, Manners::shuffledResolutions})
        for (const auto& [width, height, asked, size] : cases) {
            SCOPED_TRACE(testing::Message() << width << " x " << height << " for " << asked);
            m_decoder.setManners(order);
            const Answer answer = ask(writeClip({width, height}), asked);
            EXPECT_EQ(std::pair(size.cx, size.cy), std::pair(answer.size.cx, answer.size.cy));
        }
}

// Not through the guard: a worker's decoder gives its account to nobody.
using PictureInProcess = Picture;
TEST_F(PictureInProcess, OfAClipWithALut) {
    const TestClip clip{61, 47};
    m_decoder.setClipsHaveLut(true);
    m_decoder.setGuardResources(true); // a LUT that went too early shows
    expectPicture(ask(writeClip(clip), 47), clip, 1);
    EXPECT_EQ(1, m_decoder.account().jobsWithLut);
}

// A clip may be stored turned, and a decoder tell its sizes before or after it turns them.
TEST_F(Picture, ATurnedClipIsUprightWholeAndUnsheared) {
    for (uint32_t orientation = 1; orientation <= 8; ++orientation)
        for (const Manners told :
             {Manners::none, Manners::sizeBeforeTurning, Manners::resolutionsBeforeTurning,
              Manners::sizeBeforeTurning | Manners::resolutionsBeforeTurning})
            for (const Manners buffers : {Manners::none, Manners::buffersNeedMore}) {
                SCOPED_TRACE(testing::Message() << "orientation " << orientation << ", manners "
                                                << static_cast<uint32_t>(told | buffers));
                m_decoder.setManners(told | buffers);
                // No side is a multiple of anything.
                const TestClip clip{.width = 61, .height = 47, .orientation = orientation};
                const std::wstring path = writeClip(clip);
                for (const uint32_t factor : {1u, 4u})
                    expectPicture(ask(path, expectedSide(47, factor)), clip, factor);
                const Answer over = ask(path, 122); // twice the longer side: 94 of 122 columns, or rows
                ASSERT_EQ(122, over.size.cx);
                ASSERT_EQ(122, over.size.cy);
                EXPECT_EQ(clip.swapsSides(), over.pixel(0, 61)[3] == 0);
                EXPECT_EQ(!clip.swapsSides(), over.pixel(61, 0)[3] == 0);
            }
}

TEST_F(Picture, LargerThanTheClipTheFrameIsWholeAndCentred) {
    constexpr struct {
        uint32_t width, height;
        UINT asked;
        RECT frame;
    } cases[] = {
        {40, 20, 100, {0, 25, 100, 75}},
        {400, 20, 100, {0, 48, 100, 53}}, // too large in one direction only, and shrunk in the end
        {20, 40, 101, {25, 0, 76, 101}},
        {64, 32, 64, {0, 16, 64, 48}},
    };
    for (const auto& [width, height, asked, frame] : cases) {
        SCOPED_TRACE(testing::Message() << width << " x " << height << " for " << asked);
        const Answer answer = ask(writeClip({width, height}), asked);
        ASSERT_EQ(asked, static_cast<UINT>(std::min(answer.size.cx, answer.size.cy)));
        for (int y = 0; y < answer.size.cy; ++y)
            for (int x = 0; x < answer.size.cx; ++x) {
                const bool inFrame = x >= frame.left && x < frame.right && y >= frame.top && y < frame.bottom;
                ASSERT_EQ(inFrame ? 255 : 0, answer.pixel(x, y)[3]) << x << ", " << y;
            }
        // Red grows to the right, green downwards.
        for (const bool right : {false, true})
            for (const bool bottom : {false, true}) {
                const uint8_t* const corner =
                    answer.pixel(right ? frame.right - 1 : frame.left, bottom ? frame.bottom - 1 : frame.top);
                EXPECT_NEAR(right ? 255 : 0, corner[2], 32);
                EXPECT_NEAR(bottom ? 255 : 0, corner[1], 32);
            }
    }
}
} // namespace
