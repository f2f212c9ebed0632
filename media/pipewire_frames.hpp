#pragma once

// What a screen cast's PipeWire buffer holds, read without trusting it: whether the buffer
// carries a whole frame of the negotiated format and where the part to show lies in it,
// which of its rows the compositor marks changed, and R, G, B, x pixels turned into the
// B, G, R, x order libobs draws. Pure functions over the buffer's bytes and metas: the
// capture's PipeWire callbacks (media/pipewire_capture) only move what these return.

#include <cstdint>
#include <utility>
#include <vector>

struct spa_buffer;
struct spa_video_info_raw;

namespace orbweave::obs {

/// The part of a frame to show, as PipeWire handed it over: its top left pixel, the
/// frame's stride and the part's size, and where the part starts in the frame; null
/// pixels when the buffer holds no whole frame of the format.
struct frame_view {
    const std::uint8_t* pixels = nullptr;
    std::uint32_t stride = 0;
    std::uint32_t width = 0, height = 0;
    std::int32_t left = 0, top = 0;
};

/// Whether frames of the SPA video format can be shown: BGRx, BGRA, RGBx or RGBA.
bool supported_format(std::uint32_t video_format);
/// Whether the format's pixels are R, G, B, x (else B, G, R, x).
bool rgb_ordered(std::uint32_t video_format);
/// Whether the format's fourth byte is alpha.
bool has_alpha(std::uint32_t video_format);

/// Checks buffer against the negotiated format and narrows it to the producer's crop
/// region, where it carries one: a region of no size means the whole frame, one that
/// reaches past the frame is cut to it, and one wholly outside it is ignored (and
/// bad_crop set). A frame marked corrupted, an empty chunk, rows narrower than the
/// format's, or rows that reach past the plane from the chunk's offset give no view.
frame_view view_frame(const spa_buffer& buffer, const spa_video_info_raw& format, bool& bad_crop);

/// The rows [top, bottom) of a shown part (of view_frame) that the buffer's damage meta
/// marks changed; none (top == bottom) when it marks nothing; the whole part when the
/// buffer carries no damage.
std::pair<int, int> damaged_rows(const spa_buffer& buffer, const frame_view& shown);

/// Copies the shown part of an R, G, B, x frame into out as B, G, R, x (libobs has no
/// texture format in R, G, B order), rows packed width * 4 bytes apart; out is resized.
void rgbx_to_bgrx(const frame_view& shown, std::vector<std::uint8_t>& out);

} // namespace orbweave::obs
