#include "media/pipewire_feed.hpp"

#include "core/log.hpp"

namespace orbweave::obs {

pipewire_feed::pipewire_feed(int fd, std::uint32_t node, ended_handler on_ended)
    : capture_(fd, node, std::move(on_ended))
{
}

pipewire_feed::~pipewire_feed()
{
    // The pacing thread stops before the capture it reads goes.
    paced_.reset();
    if (picture_)
        log::line("media: the screen cast's frames: " + std::to_string(whole_) + " converted whole, " +
                  std::to_string(partial_) + " in part, " + std::to_string(kept_) + " sent unchanged");
}

void pipewire_feed::start(std::pair<int, int> frame)
{
    picture_ = std::make_unique<fitted_picture>(frame);
    paced_ = std::make_unique<paced_video>("screen cast feed", *picture_, [this] { refresh(); });
}

video_t* pipewire_feed::video() const
{
    return paced_ ? paced_->video() : nullptr;
}

void pipewire_feed::refresh()
{
    bool converted = false;
    capture_.take_newest([&](const pipewire_capture::frame& frame) {
        if (!frame.fresh)
            return;
        auto layout = frame.rgb_order ? fitted_picture::pixels::rgbx : fitted_picture::pixels::bgrx;
        int width = static_cast<int>(frame.view.width), height = static_cast<int>(frame.view.height);
        // A picture fitted anew is all new.
        bool refitted = !picture_->fitted(width, height, layout);
        if (!picture_->fit(width, height, layout))
            return;
        converted = true;
        if (refitted || (frame.changed.top == 0 && frame.changed.bottom >= height)) {
            picture_->draw(frame.view.pixels, frame.view.stride);
            ++whole_;
        } else if (!frame.changed.empty()) {
            picture_->draw_rows(frame.view.pixels, frame.view.stride, frame.changed.top, frame.changed.bottom);
            ++partial_;
        }
    });
    if (!converted)
        ++kept_;
}

} // namespace orbweave::obs
