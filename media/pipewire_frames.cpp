#include "media/pipewire_frames.hpp"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

#include <algorithm>

namespace orbweave::obs {

namespace {

/// Narrows the whole frame (at, area) to the producer's crop region, where the buffer
/// carries one; false when the region lies wholly outside the frame.
bool crop_region(const spa_buffer& buffer, spa_point& at, spa_rectangle& area)
{
    auto* crop = static_cast<spa_meta_region*>(
        spa_buffer_find_meta_data(&buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
    if (!crop || !spa_meta_region_is_valid(crop))
        return true;
    const spa_region& region = crop->region;
    std::int64_t left = std::max<std::int64_t>(region.position.x, 0);
    std::int64_t top = std::max<std::int64_t>(region.position.y, 0);
    std::int64_t right = std::min<std::int64_t>(std::int64_t{region.position.x} + region.size.width, area.width);
    std::int64_t bottom = std::min<std::int64_t>(std::int64_t{region.position.y} + region.size.height, area.height);
    if (left >= right || top >= bottom)
        return false;
    at = {static_cast<std::int32_t>(left), static_cast<std::int32_t>(top)};
    area = {static_cast<std::uint32_t>(right - left), static_cast<std::uint32_t>(bottom - top)};
    return true;
}

} // namespace

bool supported_format(std::uint32_t video_format)
{
    return video_format == SPA_VIDEO_FORMAT_BGRx || video_format == SPA_VIDEO_FORMAT_BGRA ||
           video_format == SPA_VIDEO_FORMAT_RGBx || video_format == SPA_VIDEO_FORMAT_RGBA;
}

bool rgb_ordered(std::uint32_t video_format)
{
    return video_format == SPA_VIDEO_FORMAT_RGBx || video_format == SPA_VIDEO_FORMAT_RGBA;
}

bool has_alpha(std::uint32_t video_format)
{
    return video_format == SPA_VIDEO_FORMAT_BGRA || video_format == SPA_VIDEO_FORMAT_RGBA;
}

frame_view view_frame(const spa_buffer& buffer, const spa_video_info_raw& format, bool& bad_crop)
{
    bad_crop = false;
    auto* header = static_cast<spa_meta_header*>(
        spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
    if (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED))
        return {};
    if (buffer.n_datas < 1 || !buffer.datas || !supported_format(format.format))
        return {};
    const spa_data& data = buffer.datas[0];
    if (!data.data || !data.chunk || data.chunk->size == 0 || data.maxsize == 0)
        return {};
    std::uint64_t stride = data.chunk->stride > 0 ? static_cast<std::uint64_t>(data.chunk->stride)
                                                  : std::uint64_t{format.size.width} * 4;
    // PipeWire's chunk offset counts modulo the plane's size.
    std::uint32_t offset = data.chunk->offset % data.maxsize;
    if (stride < std::uint64_t{format.size.width} * 4 || stride * format.size.height > data.maxsize - offset)
        return {};
    spa_rectangle area = format.size;
    spa_point at{0, 0};
    if (!crop_region(buffer, at, area)) {
        bad_crop = true;
        area = format.size;
        at = {0, 0};
    }
    const auto* pixels = static_cast<const std::uint8_t*>(data.data) + offset +
                         static_cast<std::size_t>(at.y) * stride + static_cast<std::size_t>(at.x) * 4;
    return {pixels, static_cast<std::uint32_t>(stride), area.width, area.height, at.x, at.y};
}

std::pair<int, int> damaged_rows(const spa_buffer& buffer, const frame_view& shown)
{
    int whole_bottom = static_cast<int>(shown.height);
    const spa_meta* damage = spa_buffer_find_meta(&buffer, SPA_META_VideoDamage);
    if (!damage || damage->size < sizeof(spa_meta_region))
        return {0, whole_bottom};
    std::int64_t top = whole_bottom, bottom = 0;
    bool any = false;
    spa_meta_region* region;
    spa_meta_for_each(region, damage)
    {
        if (!spa_meta_region_is_valid(region))
            break;
        any = true;
        std::int64_t from = std::int64_t{region->region.position.y} - shown.top;
        std::int64_t to = from + region->region.size.height;
        top = std::min(top, std::max<std::int64_t>(from, 0));
        bottom = std::max(bottom, std::min<std::int64_t>(to, whole_bottom));
    }
    // A meta with no region at all says nothing: take the whole frame as changed.
    if (!any)
        return {0, whole_bottom};
    if (top >= bottom)
        return {0, 0};
    return {static_cast<int>(top), static_cast<int>(bottom)};
}

void rgbx_to_bgrx(const frame_view& shown, std::vector<std::uint8_t>& out)
{
    std::size_t row_bytes = static_cast<std::size_t>(shown.width) * 4;
    out.resize(row_bytes * shown.height);
    for (std::uint32_t row = 0; row < shown.height; ++row) {
        const std::uint8_t* in = shown.pixels + static_cast<std::size_t>(row) * shown.stride;
        std::uint8_t* to = out.data() + row * row_bytes;
        for (std::uint32_t column = 0; column < shown.width; ++column, in += 4, to += 4) {
            to[0] = in[2];
            to[1] = in[1];
            to[2] = in[0];
            to[3] = in[3];
        }
    }
}

} // namespace orbweave::obs
