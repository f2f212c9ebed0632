// A desktop portal's screen cast without a compositor: its PipeWire buffers read without
// trusting them (hostile sizes, strides, offsets, metas), RGBx frames turned into the
// order libobs draws, and a cast whose PipeWire stream cannot be reached reported as
// such when its source is made.

#include "media/capture_source.hpp"
#include "media/catalogue.hpp"
#include "media/pipewire_frames.hpp"
#include "media/pipewire_source.hpp"

#include <obs.h>
#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

#include <gtest/gtest.h>

#include <cstdint>
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
    cast_buffer one_byte_short(255, 32, 256 * 32);
    EXPECT_EQ(view_frame(one_byte_short.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer short_plane(256, 32, 256 * 31);
    short_plane.chunk.size = 256 * 31;
    EXPECT_EQ(view_frame(short_plane.buffer, format, bad_crop).pixels, nullptr);
    cast_buffer offset(256, 32);
    offset.chunk.offset = 256;
    EXPECT_EQ(view_frame(offset.buffer, format, bad_crop).pixels, nullptr);
    // An offset near the plane's end, and one that lands there once taken modulo the
    // plane's size, as PipeWire counts it.
    offset.chunk.offset = offset.data.maxsize - 4;
    EXPECT_EQ(view_frame(offset.buffer, format, bad_crop).pixels, nullptr);
    offset.chunk.offset = 2 * offset.data.maxsize - 4;
    EXPECT_EQ(view_frame(offset.buffer, format, bad_crop).pixels, nullptr);
    // Room for the frame behind an offset: read from there.
    cast_buffer room(256, 32, 256 * 33);
    room.chunk.offset = 256;
    EXPECT_EQ(view_frame(room.buffer, format, bad_crop).pixels, room.bytes.data() + 256);
    room.chunk.offset = room.data.maxsize + 256;
    EXPECT_EQ(view_frame(room.buffer, format, bad_crop).pixels, room.bytes.data() + 256);
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

TEST(ScreenCastBuffers, RgbxFramesAreDrawnAsBgrxRowsPackedFromTheShownPart)
{
    // A 3x2 window at (1, 1) of a 4x3 RGBx frame whose rows carry 8 bytes of padding.
    auto format = bgrx(4, 3);
    format.format = SPA_VIDEO_FORMAT_RGBx;
    cast_buffer frame(24, 3);
    for (std::size_t at = 0; at < frame.bytes.size(); ++at)
        frame.bytes[at] = static_cast<std::uint8_t>(at);
    auto window = region(1, 1, 3, 2);
    frame.add_meta(SPA_META_VideoCrop, &window, sizeof window);
    bool bad_crop = false;
    frame_view view = view_frame(frame.buffer, format, bad_crop);
    ASSERT_NE(view.pixels, nullptr);
    EXPECT_TRUE(rgb_ordered(format.format));
    EXPECT_FALSE(rgb_ordered(SPA_VIDEO_FORMAT_BGRA));

    std::vector<std::uint8_t> drawn{1, 2, 3};
    rgbx_to_bgrx(view, drawn);
    // Row 1 starts at byte 24, row 2 at 48; the window from the second pixel (4 bytes on).
    std::vector<std::uint8_t> expected = {30, 29, 28, 31, 34, 33, 32, 35, 38, 37, 36, 39,
                                          54, 53, 52, 55, 58, 57, 56, 59, 62, 61, 60, 63};
    EXPECT_EQ(drawn, expected);
}

TEST(ScreenCastSource, ACastWhosePipeWireStreamCannotBeReachedIsNoSource)
{
    // libobs keeps a source whose create failed; it would wait for a size that never comes.
    register_portal_source();
    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "fd", -1);
    obs_data_set_int(settings.get(), "node", 42);
    EXPECT_FALSE(create_source(portal_source_id, settings));

    data_handle screen(obs_data_create());
    obs_data_set_int(screen.get(), "screen", 0);
    EXPECT_TRUE(create_source(capture_id::screen, screen)) << "a source that was made is one";
}

} // namespace
} // namespace orbweave::obs
