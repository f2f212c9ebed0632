// The pieces of the feeds past the canvas that take bytes from outside or decide what a
// picture looks like: a screen cast's buffers checked and cut to the compositor's crop
// region, the compositor's damage read, and a capture fitted into the stream's NV12
// picture (bars, colours, and the output's frames brought up to date by what changed,
// each change converted in stripes equal to a whole conversion).

#include "media/direct_video.hpp"
#include "media/pipewire_capture.hpp"

#include <media-io/video-frame.h>
#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace orbweave::obs {
namespace {

/// A screen cast's buffer as PipeWire hands it over: one plane of width x height BGRx
/// pixels with stride bytes a row, and any metas given.
struct cast_buffer {
    std::vector<std::uint8_t> bytes;
    spa_chunk chunk{};
    spa_data data{};
    std::vector<spa_meta> metas;
    spa_buffer buffer{};

    cast_buffer(std::uint32_t stride, std::uint32_t height, std::uint32_t maxsize = 0)
        : bytes(maxsize ? maxsize : stride * height)
    {
        chunk.size = stride * height;
        chunk.stride = static_cast<std::int32_t>(stride);
        data.type = SPA_DATA_MemPtr;
        data.maxsize = static_cast<std::uint32_t>(bytes.size());
        data.data = bytes.data();
        data.chunk = &chunk;
        relink();
    }
    void relink()
    {
        buffer.n_metas = static_cast<std::uint32_t>(metas.size());
        buffer.metas = metas.data();
        buffer.n_datas = 1;
        buffer.datas = &data;
    }
    void add_meta(std::uint32_t type, void* meta, std::uint32_t size)
    {
        metas.push_back(spa_meta{type, size, meta});
        relink();
    }
};

spa_video_info_raw bgrx(std::uint32_t width, std::uint32_t height)
{
    spa_video_info_raw format{};
    format.format = SPA_VIDEO_FORMAT_BGRx;
    format.size = {width, height};
    return format;
}

spa_meta_region region(std::int32_t x, std::int32_t y, std::uint32_t width, std::uint32_t height)
{
    spa_meta_region meta{};
    meta.region.position = {x, y};
    meta.region.size = {width, height};
    return meta;
}

TEST(ScreenCastBuffers, OnlyWholeFramesOfTheFormatAreReadAndTheCropRegionIsKeptInside)
{
    bool bad_crop = false;
    auto format = bgrx(64, 32);
    cast_buffer whole(256, 32);
    frame_view view = view_frame(whole.buffer, format, bad_crop);
    EXPECT_EQ(view.pixels, whole.bytes.data());
    EXPECT_EQ(view.width, 64u);
    EXPECT_EQ(view.height, 32u);

    // Rows narrower than the format's, a plane smaller than its rows say, an offset
    // that leaves too little, an empty chunk, a frame marked corrupted: nothing is read.
    cast_buffer narrow(128, 32);
    EXPECT_EQ(view_frame(narrow.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer short_plane(256, 32, 256 * 31);
    short_plane.chunk.size = 256 * 31;
    EXPECT_EQ(view_frame(short_plane.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer offset(256, 32);
    offset.chunk.offset = 256;
    EXPECT_EQ(view_frame(offset.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer empty(256, 32);
    empty.chunk.size = 0;
    EXPECT_EQ(view_frame(empty.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer corrupted(256, 32);
    spa_meta_header header{};
    header.flags = SPA_META_HEADER_FLAG_CORRUPTED;
    corrupted.add_meta(SPA_META_Header, &header, sizeof header);
    EXPECT_EQ(view_frame(corrupted.buffer, format, bad_crop).pixels, nullptr);
    spa_video_info_raw other = format;
    other.format = SPA_VIDEO_FORMAT_NV12;
    EXPECT_EQ(view_frame(whole.buffer, other, bad_crop).pixels, nullptr);

    // A window's region of a larger frame; one reaching past the frame is cut to it;
    // one wholly outside is ignored, and said.
    cast_buffer cropped(256, 32);
    auto inside = region(8, 4, 20, 10);
    cropped.add_meta(SPA_META_VideoCrop, &inside, sizeof inside);
    view = view_frame(cropped.buffer, format, bad_crop);
    EXPECT_EQ(view.pixels, cropped.bytes.data() + 4 * 256 + 8 * 4);
    EXPECT_EQ(view.width, 20u);
    EXPECT_EQ(view.height, 10u);
    EXPECT_FALSE(bad_crop);
    inside = region(50, 20, 100, 100);
    view = view_frame(cropped.buffer, format, bad_crop);
    EXPECT_EQ(view.width, 14u);
    EXPECT_EQ(view.height, 12u);
    inside = region(70, 40, 10, 10);
    view = view_frame(cropped.buffer, format, bad_crop);
    EXPECT_TRUE(bad_crop);
    EXPECT_EQ(view.pixels, cropped.bytes.data());
    EXPECT_EQ(view.width, 64u);
}

TEST(ScreenCastBuffers, TheCompositorsDamageNamesTheRowsThatChangedInTheShownPart)
{
    bool bad_crop = false;
    auto format = bgrx(64, 32);
    cast_buffer frame(256, 32);
    frame_view view = view_frame(frame.buffer, format, bad_crop);
    // No damage told: all of it may have changed.
    EXPECT_EQ(damaged_rows(frame.buffer, view), std::make_pair(0, 32));

    spa_meta_region damage[4] = {region(0, 10, 5, 4), region(30, 20, 2, 3), region(0, 0, 0, 0), region(0, 0, 64, 32)};
    frame.add_meta(SPA_META_VideoDamage, damage, sizeof damage);
    // The regions up to the first empty one.
    EXPECT_EQ(damaged_rows(frame.buffer, view), std::make_pair(10, 23));
    // Measured from the top of a window's crop region, and kept inside it.
    view.top = 12;
    view.height = 8;
    EXPECT_EQ(damaged_rows(frame.buffer, view), std::make_pair(0, 8));
    view.top = 24;
    EXPECT_EQ(damaged_rows(frame.buffer, view), std::make_pair(0, 0));
}

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
