// Frames placed in larger pictures: in the middle, of the same shape, evenly scaled, and within their bounds.

#include <gtest/gtest.h>

#include "Common.h"
#include "brFramePlacement.h"

namespace {
constexpr uint32_t marker = 0xDEADBEEF;

std::vector<uint32_t> place(const std::vector<uint32_t>& frame, uint32_t width, uint32_t pictureWidth,
                            uint32_t pictureHeight) {
    std::vector<uint32_t> picture(size_t{pictureWidth} * pictureHeight, marker);
    placeFrame(reinterpret_cast<const uint8_t*>(frame.data()), width,
               static_cast<uint32_t>(frame.size() / width), reinterpret_cast<uint8_t*>(picture.data()),
               pictureWidth, pictureHeight);
    return picture;
}

TEST(FramePlacement, FitsAndCentres) {
    constexpr struct {
        uint32_t frame[2], picture[2];
        brPlacement place;
    } cases[] = {
        {{16, 9}, {160, 160}, {0, 35, 160, 90}},
        {{9, 16}, {160, 160}, {35, 0, 90, 160}},
        {{1000, 1}, {10, 10}, {0, 4, 10, 1}},                   // never thinner than a pixel
        {{65535, 65535}, {23170, 23170}, {0, 0, 23170, 23170}}, // products beyond 32 bits
        {{3, 2}, {4, 4}, {0, 0, 4, 3}},
    };
    for (const auto& [frame, picture, expected] : cases) {
        const brPlacement place = fitFrame(frame[0], frame[1], picture[0], picture[1]);
        SCOPED_TRACE(testing::Message() << frame[0] << " x " << frame[1]);
        EXPECT_EQ(0, std::memcmp(&expected, &place, sizeof place)) << place.left << " " << place.top;
    }
}

TEST(FramePlacement, AnEvenColourStaysExactlyThatColour) {
    // Weights that do not add up to 1 would darken it, and most visibly its opaque alpha.
    for (const uint32_t side : {1u, 2u, 3u, 10u, 97u})
        for (const uint32_t size : {1u, 5u, 96u, 98u, 333u})
            ASSERT_EQ(std::vector(size_t{size} * size, 0xFF01FE80u),
                      place(std::vector(size_t{side} * side, 0xFF01FE80u), side, size, size));
}

TEST(FramePlacement, EnlargingIsBilinearAndShrinkingAveragesAll) {
    // In the middle, and nothing around it is touched.
    EXPECT_EQ((std::vector<uint32_t>{marker, marker, 1, 2, marker, marker}), place({1, 2}, 2, 2, 3));
    const auto ramp = place({0, 101}, 2, 4, 2); // positions -1/4, 1/4, 3/4, 5/4 between the two
    EXPECT_EQ((std::vector<uint32_t>{0, 25, 76, 101}), std::vector<uint32_t>(ramp.begin(), ramp.begin() + 4));

    // Every second column white: a filter that takes single pixels shows a pattern instead of an even grey.
    std::vector<uint32_t> stripes(1024 * 8);
    for (size_t i = 0; i < stripes.size(); ++i)
        stripes[i] = i % 2 ? 255 : 0;
    const auto shrunk = place(stripes, 1024, 64, 1);
    for (size_t x = 2; x < 62; ++x)
        EXPECT_NEAR(127.5, shrunk[x], 1.5) << x;
}
} // namespace
