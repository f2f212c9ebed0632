#include "media/direct_video.hpp"

#include "media/encoders.hpp"
#include "media/runtime.hpp"

#include <media-io/video-frame.h>
#include <media-io/video-io.h>
#include <media-io/video-scaler.h>
#include <util/platform.h>
#include <util/threading.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace orbweave::obs {

namespace {

constexpr std::uint64_t frame_interval_ns = 1'000'000'000 / stream_fps;

std::atomic<long long> late_frames{0};

video_scale_info scale_info(video_format format, int width, int height, video_range_type range)
{
    video_scale_info info{};
    info.format = format;
    info.width = static_cast<std::uint32_t>(width);
    info.height = static_cast<std::uint32_t>(height);
    info.range = range;
    info.colorspace = VIDEO_CS_DEFAULT;
    return info;
}

/// A scaler from width x height pixels in format to NV12 of the same size, with the
/// fastest filter: at the capture's own size it only halves the colour, within a pair
/// of rows, where every filter gives the same. Null when libobs cannot make one.
video_scaler_t* same_size_scaler(video_format format, int width, int height)
{
    video_scale_info from = scale_info(format, width, height, VIDEO_RANGE_FULL);
    video_scale_info to = scale_info(VIDEO_FORMAT_NV12, width, height, VIDEO_RANGE_DEFAULT);
    video_scaler_t* scaler = nullptr;
    if (video_scaler_create(&scaler, &to, &from, VIDEO_SCALE_FAST_BILINEAR) != VIDEO_SCALER_SUCCESS)
        return nullptr;
    return scaler;
}

void destroy(video_scaler_t*& scaler)
{
    if (scaler)
        video_scaler_destroy(scaler);
    scaler = nullptr;
}

} // namespace

bool feeds_directly(capture_route route, callback::source_type::type kind)
{
    using callback::source_type;
    bool x11 = route == capture_route::x11 && (kind == source_type::screen || kind == source_type::window);
    bool portal = route == capture_route::portal && (kind == source_type::screen || kind == source_type::window);
    if (!x11 && !portal)
        return false;
    const char* asked = std::getenv("ORBWEAVE_SCREEN_CAPTURE");
    if (asked && std::string_view(asked) == "direct")
        return true;
    if (asked && std::string_view(asked) == "canvas")
        return false;
    return software_renderer(current_video_path().renderer);
}

long long direct_feed_late_frames()
{
    return late_frames.load();
}

placement place_in(int width, int height, std::pair<int, int> frame)
{
    double scale = std::min(static_cast<double>(frame.first) / width, static_cast<double>(frame.second) / height);
    int fitted_width = std::min(frame.first, static_cast<int>(std::lround(width * scale)));
    int fitted_height = std::min(frame.second, static_cast<int>(std::lround(height * scale)));
    if (frame.first - fitted_width < 8 && frame.second - fitted_height < 8)
        return {0, 0, frame.first, frame.second};
    placement place;
    place.width = std::max(2, fitted_width & ~1);
    place.height = std::max(2, fitted_height & ~1);
    place.x = ((frame.first - place.width) / 2) & ~1;
    place.y = ((frame.second - place.height) / 2) & ~1;
    return place;
}

fitted_picture::fitted_picture(std::pair<int, int> frame)
    : frame_(frame), planes_(static_cast<std::size_t>(frame.first) * frame.second * 3 / 2),
      versions_(static_cast<std::size_t>((frame.second + stripe_rows - 1) / stripe_rows), 0)
{
    clear();
}

fitted_picture::~fitted_picture()
{
    destroy(scaler_);
    destroy(stripe_scaler_);
    destroy(last_stripe_scaler_);
}

void fitted_picture::clear()
{
    // Black in the stream's limited range.
    std::size_t luma_bytes = static_cast<std::size_t>(frame_.first) * frame_.second;
    std::memset(planes_.data(), 16, luma_bytes);
    std::memset(planes_.data() + luma_bytes, 128, planes_.size() - luma_bytes);
    changed(0, frame_.second);
}

void fitted_picture::changed(int top, int bottom)
{
    ++version_;
    top = std::max(0, top);
    bottom = std::min(frame_.second, bottom);
    for (int stripe = top / stripe_rows; stripe * stripe_rows < bottom; ++stripe)
        versions_[static_cast<std::size_t>(stripe)] = version_;
}

bool fitted_picture::fit(int width, int height, pixels layout)
{
    if (fitted(width, height, layout))
        return true;
    if (width <= 0 || height <= 0)
        return false;
    placement place = place_in(width, height, frame_);
    video_format format = layout == pixels::bgrx ? VIDEO_FORMAT_BGRX : VIDEO_FORMAT_RGBA;
    bool scaled = place.width != width || place.height != height;
    video_scaler_t* scaler = nullptr;
    video_scaler_t* stripe = nullptr;
    video_scaler_t* last_stripe = nullptr;
    if (scaled) {
        video_scale_info from = scale_info(format, width, height, VIDEO_RANGE_FULL);
        video_scale_info to = scale_info(VIDEO_FORMAT_NV12, place.width, place.height, VIDEO_RANGE_DEFAULT);
        if (video_scaler_create(&scaler, &to, &from, VIDEO_SCALE_BICUBIC) != VIDEO_SCALER_SUCCESS)
            return false;
    } else {
        scaler = same_size_scaler(format, width, height);
        if (!scaler)
            return false;
        // A stripe converts alone to what it is in the whole picture: colour is halved
        // within pairs of rows, and stripes start on even rows.
        if (height > stripe_rows) {
            stripe = same_size_scaler(format, width, stripe_rows);
            if (int rest = height % stripe_rows; stripe && rest > 0)
                last_stripe = same_size_scaler(format, width, rest);
            if (!stripe || (height % stripe_rows > 0 && !last_stripe)) {
                destroy(stripe);
                destroy(last_stripe);
            }
        }
    }
    destroy(scaler_);
    destroy(stripe_scaler_);
    destroy(last_stripe_scaler_);
    scaler_ = scaler;
    stripe_scaler_ = stripe;
    last_stripe_scaler_ = last_stripe;
    width_ = width;
    height_ = height;
    layout_ = layout;
    place_ = place;
    // The old picture may show outside the new place.
    clear();
    return true;
}

void fitted_picture::convert(video_scaler_t* scaler, const std::uint8_t* pixels, std::uint32_t stride, int row)
{
    std::uint8_t* luma = planes_.data();
    std::uint8_t* chroma = luma + static_cast<std::size_t>(frame_.first) * frame_.second;
    int y = place_.y + row;
    std::uint8_t* planes[MAX_AV_PLANES] = {luma + static_cast<std::size_t>(y) * frame_.first + place_.x,
                                           chroma + static_cast<std::size_t>(y / 2) * frame_.first + place_.x};
    const std::uint32_t lines_out[MAX_AV_PLANES] = {static_cast<std::uint32_t>(frame_.first),
                                                    static_cast<std::uint32_t>(frame_.first)};
    const std::uint8_t* input[MAX_AV_PLANES] = {pixels};
    const std::uint32_t lines_in[MAX_AV_PLANES] = {stride};
    video_scaler_scale(scaler, planes, lines_out, input, lines_in);
}

void fitted_picture::draw(const std::uint8_t* pixels, std::uint32_t stride)
{
    if (!scaler_)
        return;
    convert(scaler_, pixels, stride, 0);
    changed(place_.y, place_.y + place_.height);
}

void fitted_picture::draw_rows(const std::uint8_t* pixels, std::uint32_t stride, int top, int bottom)
{
    top = std::max(0, top);
    bottom = std::min(height_, bottom);
    if (top >= bottom)
        return;
    if (!stripe_scaler_) {
        draw(pixels, stride);
        return;
    }
    for (int row = top / stripe_rows * stripe_rows; row < bottom; row += stripe_rows) {
        int rows = std::min(stripe_rows, height_ - row);
        convert(rows == stripe_rows ? stripe_scaler_ : last_stripe_scaler_,
                pixels + static_cast<std::size_t>(row) * stride, stride, row);
        changed(place_.y + row, place_.y + row + rows);
    }
}

void fitted_picture::copy_to(const video_frame& frame)
{
    std::vector<std::uint64_t>& held = held_[frame.data[0]];
    if (held.size() != versions_.size())
        held.assign(versions_.size(), 0);
    const std::size_t width = static_cast<std::size_t>(frame_.first);
    for (std::size_t stripe = 0; stripe < versions_.size(); ++stripe) {
        if (held[stripe] == versions_[stripe])
            continue;
        int top = static_cast<int>(stripe) * stripe_rows;
        int bottom = std::min(frame_.second, top + stripe_rows);
        for (int row = top; row < bottom; ++row)
            std::memcpy(frame.data[0] + static_cast<std::size_t>(row) * frame.linesize[0], luma() + row * width,
                        width);
        for (int row = top / 2; row < bottom / 2; ++row)
            std::memcpy(frame.data[1] + static_cast<std::size_t>(row) * frame.linesize[1], chroma() + row * width,
                        width);
        held[stripe] = versions_[stripe];
    }
}

paced_video::paced_video(const std::string& name, fitted_picture& picture, std::function<void()> refresh)
    : name_(name), picture_(picture), refresh_(std::move(refresh))
{
    video_output_info info{};
    // libobs keeps the name's pointer, not a copy.
    info.name = name_.c_str();
    info.format = VIDEO_FORMAT_NV12;
    info.fps_num = stream_fps;
    info.fps_den = 1;
    info.width = static_cast<std::uint32_t>(picture.frame().first);
    info.height = static_cast<std::uint32_t>(picture.frame().second);
    info.range = VIDEO_RANGE_DEFAULT;
    info.colorspace = VIDEO_CS_DEFAULT;
    info.cache_size = 6;
    if (video_output_open(&video_, &info) != VIDEO_OUTPUT_SUCCESS)
        throw std::runtime_error("cannot open a video output for the capture");
    thread_ = std::thread([this] {
        os_set_thread_name(name_.c_str());
        run();
    });
}

paced_video::~paced_video()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    video_output_close(video_);
}

void paced_video::run()
{
    std::uint64_t due = os_gettime_ns();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        refresh_();
        std::uint64_t now = os_gettime_ns();
        int count = 1;
        if (now > due + frame_interval_ns)
            count += static_cast<int>((now - due) / frame_interval_ns);
        video_frame frame{};
        if (video_output_lock_frame(video_, &frame, count, due)) {
            picture_.copy_to(frame);
            video_output_unlock_frame(video_);
        }
        late_frames += count - 1;
        due += frame_interval_ns * static_cast<std::uint64_t>(count);
        lock.lock();
        // Pacing, not synchronisation: the next frame is due then, and a stop wakes us.
        now = os_gettime_ns();
        wake_.wait_for(lock, std::chrono::nanoseconds(due > now ? due - now : 0), [this] { return stopping_; });
    }
}

} // namespace orbweave::obs
