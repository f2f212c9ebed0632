// What the feeds past the canvas decide about a picture: a capture fitted into the
// stream's NV12 picture (bars, colours, and the output's frames brought up to date by what
// changed, each change converted in stripes equal to a whole conversion). The screen cast's
// buffers are read in screen_cast_test.

#include "media/direct_video.hpp"

#include <media-io/video-frame.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace orbweave::obs {
namespace {

/// width x height BGRX pixels, all of colour (0xRRGGBB).
std::vector<std::uint8_t> filled(int width, int height, std::uint32_t colour)
{
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
    for (std::size_t at = 0; at < pixels.size(); at += 4) {
        pixels[at] = colour & 0xff;
        pixels[at + 1] = (colour >> 8) & 0xff;
        pixels[at + 2] = (colour >> 16) & 0xff;
        pixels[at + 3] = 0xff;
    }
    return pixels;
}

TEST(FittedPicture, ACaptureOfAnotherShapeIsCentredWithBlackBarsInTheStreamsRange)
{
    fitted_picture picture({1280, 720});
    ASSERT_TRUE(picture.fit(800, 600, fitted_picture::pixels::bgrx));
    EXPECT_EQ(picture.place().x, 160);
    EXPECT_EQ(picture.place().width, 960);
    EXPECT_EQ(picture.place().height, 720);
    auto white = filled(800, 600, 0xffffff);
    picture.draw(white.data(), 800 * 4);
    auto luma = [&](int x, int y) { return picture.luma()[static_cast<std::size_t>(y) * 1280 + x]; };
    // Limited range: black bars at 16, white at 235.
    EXPECT_EQ(luma(10, 360), 16);
    EXPECT_EQ(luma(1270, 360), 16);
    EXPECT_NEAR(luma(640, 360), 235, 2);
    EXPECT_NEAR(luma(161, 2), 235, 2);

    // Red and blue: an RGB-ordered capture is not read as BGR.
    ASSERT_TRUE(picture.fit(1280, 720, fitted_picture::pixels::rgbx));
    auto red_as_rgbx = filled(1280, 720, 0x0000ff); // bytes ff 00 00 ff: red, in R, G, B, x order
    picture.draw(red_as_rgbx.data(), 1280 * 4);
    EXPECT_NEAR(luma(640, 360), 63, 3); // BT.709 red
    const std::uint8_t* uv = picture.chroma() + static_cast<std::size_t>(180) * 1280 + 640;
    EXPECT_GT(uv[1], 200) << "V of red";
}

/// One of a video output's frames: NV12 planes of width x height with rows of linesize
/// bytes, as libobs hands them out in turn.
struct output_frame {
    std::vector<std::uint8_t> luma, chroma;
    video_frame frame{};

    output_frame(int width, int height, std::uint32_t linesize)
        : luma(static_cast<std::size_t>(linesize) * height, 0), chroma(static_cast<std::size_t>(linesize) * height / 2, 0)
    {
        frame.data[0] = luma.data();
        frame.data[1] = chroma.data();
        frame.linesize[0] = frame.linesize[1] = linesize;
        (void)width;
    }
    /// Whether the frame holds picture's planes.
    bool holds(const fitted_picture& picture) const
    {
        auto [width, height] = picture.frame();
        for (int row = 0; row < height; ++row)
            if (std::memcmp(luma.data() + static_cast<std::size_t>(row) * frame.linesize[0],
                            picture.luma() + static_cast<std::size_t>(row) * width, static_cast<std::size_t>(width)) != 0)
                return false;
        for (int row = 0; row < height / 2; ++row)
            if (std::memcmp(chroma.data() + static_cast<std::size_t>(row) * frame.linesize[1],
                            picture.chroma() + static_cast<std::size_t>(row) * width, static_cast<std::size_t>(width)) != 0)
                return false;
        return true;
    }
};

// Each of the output's frames is brought up to date with what changed since it last held
// the picture: nothing at all while the picture is still, a change's own stripes, and
// every change a frame missed while the others were sent.
TEST(FittedPicture, OutputFramesCopyOnlyWhatChangedSinceTheyLastHeldThePicture)
{
    // 1280x700 sits 10 rows down in 1280x720, unscaled: the capture's stripes straddle
    // the frame's, and its last stripe is 12 rows.
    fitted_picture picture({1280, 720});
    ASSERT_TRUE(picture.fit(1280, 700, fitted_picture::pixels::bgrx));
    ASSERT_TRUE(picture.in_stripes());
    EXPECT_EQ(picture.place().y, 10);
    auto pixels = filled(1280, 700, 0x336699);
    picture.draw(pixels.data(), 1280 * 4);
    output_frame first(1280, 720, 1280 + 64), second(1280, 720, 1280 + 64);
    picture.copy_to(first.frame);
    picture.copy_to(second.frame);
    ASSERT_TRUE(first.holds(picture));
    ASSERT_TRUE(second.holds(picture));

    // A mark in the first frame stays through a still picture: nothing is copied.
    first.luma[5] = 1;
    picture.copy_to(first.frame);
    EXPECT_EQ(first.luma[5], 1);

    // The bottom rows change: the first frame gets them (its mark, far above, stays),
    // and they equal the whole capture converted again.
    for (int row = 690; row < 700; ++row)
        for (int column = 0; column < 1280; ++column)
            pixels[(static_cast<std::size_t>(row) * 1280 + column) * 4 + 1] = static_cast<std::uint8_t>(column);
    picture.draw_rows(pixels.data(), 1280 * 4, 690, 700);
    picture.copy_to(first.frame);
    EXPECT_EQ(first.luma[5], 1);
    first.luma[5] = picture.luma()[5];
    EXPECT_TRUE(first.holds(picture));
    fitted_picture whole({1280, 720});
    ASSERT_TRUE(whole.fit(1280, 700, fitted_picture::pixels::bgrx));
    whole.draw(pixels.data(), 1280 * 4);
    std::size_t bytes = 1280u * 720u * 3u / 2u;
    EXPECT_EQ(std::vector<std::uint8_t>(picture.luma(), picture.luma() + bytes),
              std::vector<std::uint8_t>(whole.luma(), whole.luma() + bytes));

    // Two more changes while the second frame was not sent: it gets both.
    picture.draw_rows(pixels.data(), 1280 * 4, 0, 3);
    picture.copy_to(first.frame);
    pixels[(300u * 1280u + 7u) * 4u] = 0xee;
    picture.draw_rows(pixels.data(), 1280 * 4, 300, 301);
    picture.copy_to(second.frame);
    EXPECT_TRUE(second.holds(picture));
    EXPECT_FALSE(first.holds(picture)) << "the first frame missed the last change";
}

} // namespace
} // namespace orbweave::obs
