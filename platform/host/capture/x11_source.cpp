#include "capture/x11_source.h"

#include "base/host_log.h"
#include "capture/x11_view.h"
#include "statistics/counters.h"

#include <algorithm>
#include <string>
#include <utility>

namespace zu3host {

namespace {

// so that all lines are checked once a second
constexpr auto time_between_checks = std::chrono::microseconds(1'000'000) / X11Image::checks;

constexpr uint32_t unchanged_until_ahead = 3;

/**
 * X counts pixels of a line in 16 bits with a sign; a whole picture of more than 1 GiB is no
 * screen's.
 */
bool is_possible(PictureSize size)
{
    constexpr uint32_t longest = INT16_MAX;
    constexpr uint64_t most_pixels = 1u << 28;
    return size.width && size.height && size.width <= longest && size.height <= longest &&
           uint64_t{size.width} * size.height <= most_pixels;
}

} // namespace

std::unique_ptr<X11Source> X11Source::open(const common::ScreenPart& part)
{
    std::unique_ptr<X11Connection> connection = X11Connection::open();
    if (!connection || !has_known_pixels(*connection))
        return nullptr;
    std::unique_ptr<X11View> view = open_x11_view(*connection, part);
    if (!view)
        return nullptr;
    return std::unique_ptr<X11Source>(new X11Source(std::move(connection), std::move(view)));
}

X11Source::X11Source(std::unique_ptr<X11Connection> connection, std::unique_ptr<X11View> view)
    : connection_(std::move(connection)), view_(std::move(view)), pointer_(*connection_),
      damage_(*connection_, pointer_.available())
{
    connection_->on_event([this](const xcb_generic_event_t& event) { handle_event(event); });
}

X11Source::~X11Source()
{
    // detaches over the connection
    image_.reset();
}

void X11Source::handle_event(const xcb_generic_event_t& event)
{
    if (!pointer_.handle_event(event) && !damage_.handle_event(event))
        place_stale_ = view_->is_moved_by(event) || place_stale_;
}

std::optional<BgraImage> X11Source::grab(const GrabRequest& request)
{
    // the screen may be resized between the question for its size and the fetch
    constexpr int attempts = 3;
    connection_->take_events();
    if (asked_ahead_ && !read_ahead())
        pixels_stale_ = true;
    for (int attempt = 0; attempt < attempts && !connection_->lost(); ++attempt) {
        if ((place_stale_ || !image_) && !find_place())
            continue;
        if (bring_up_to_date(request.pointer)) {
            unchanged_ = changed_.empty() ? unchanged_ + 1 : 0;
            ask_ahead();
            return image();
        }
        place_stale_ = true;
        pixels_stale_ = true;
    }
    if (connection_->lost() || !view_->end().empty())
        note_loss();
    else
        note_refusal();
    return std::nullopt;
}

std::optional<BgraImage> X11Source::glance(const GrabRequest& request)
{
    if (!asked_ahead_ || request.pointer != pointer_shown_ ||
        !connection_->has_short_replies(size_t{request.pointer} + check_ahead_))
        return std::nullopt;
    connection_->take_events();
    pixels_stale_ = !read_ahead();
    if (pixels_stale_ || place_stale_ || damage_.changed() || pointer_.changes() != pointer_at_)
        return std::nullopt;
    serial_before_ = serial_;
    changed_.clear();
    ask_ahead();
    return image();
}

void X11Source::ask_ahead()
{
    const uint32_t checks = checks_due();
    // There is room for one check at a time.
    if (unchanged_ < unchanged_until_ahead || !damage_.available() || checks > 1)
        return;
    if (pointer_shown_)
        pointer_.request(place_.window);
    if (checks > 0)
        image_->request_check(place_);
    checked(checks);
    asked_ahead_ = true;
    check_ahead_ = checks > 0;
    connection_->send();
}

// False if pixels have changed that no event tells of.
bool X11Source::read_ahead()
{
    asked_ahead_ = false;
    PartList found(image_->size());
    bool read = true;
    if (check_ahead_) {
        pointer_.erase(image_->pixels(), image_->stride());
        read = image_->collect(found);
        if (pointer_shown_)
            draw_pointer();
    }
    if (pointer_shown_)
        pointer_.collect();
    return read && found.empty();
}

void X11Source::draw_pointer()
{
    pointer_.draw(image_->pixels(), image_->stride(), image_->size(), place_.window_x,
                  place_.window_y);
}

BgraImage X11Source::image() const
{
    BgraImage image{image_->pixels(), image_->stride(), image_->size(), serial_};
    image.changed = {serial_before_, changed_.parts()};
    return image;
}

bool X11Source::find_place()
{
    place_stale_ = false;
    const std::optional<X11Place> place = view_->locate();
    if (!place || !is_possible(place->size)) {
        place_stale_ = true;
        return false;
    }
    if (image_ && *place == place_)
        return true;
    if (place->window != place_.window)
        damage_.watch(place->window);
    pixels_stale_ = true;
    place_ = *place;
    return (image_ && image_->size() == place_.size) || allocate_image(place_.size);
}

bool X11Source::allocate_image(PictureSize size)
{
    pointer_.forget_drawing();
    image_ = X11Image::shared(*connection_, size);
    if (image_ || connection_->lost())
        return image_ != nullptr;
    if (!told_of_plain_)
        HOST_LOGW(
            "The X server of DISPLAY=\"%s\" cannot share memory with this program (MIT-SHM 1.2 on the same machine): pictures come through the connection, which is slower.",
            connection_->display().c_str());
    told_of_plain_ = true;
    image_ = X11Image::plain(*connection_, size);
    return true;
}

bool X11Source::bring_up_to_date(bool pointer)
{
    serial_before_ = serial_;
    changed_ = PartList(image_->size());
    find_changes(pointer);
    if (changed_.is_all())
        checked_until_ = std::chrono::steady_clock::now();
    const uint32_t checks = checks_due();
    checked(checks);
    const bool same_pointer =
        pointer == pointer_shown_ && (!pointer || pointer_.changes() == pointer_at_);
    if (changed_.empty() && checks == 0 && same_pointer)
        return true;
    const std::optional<PictureRectangle> pointer_before = pointer_.drawn();
    pointer_.erase(image_->pixels(), image_->stride());
    if (!fetch(checks))
        return false;
    if (pointer)
        draw_pointer();
    if (!same_pointer)
        for (const auto& drawn : {pointer_before, pointer_.drawn()})
            changed_.add(drawn.value_or(PictureRectangle{}));
    pointer_shown_ = pointer;
    pointer_at_ = pointer_.changes();
    if (!changed_.empty())
        serial_ = next_image_serial();
    return true;
}

void X11Source::find_changes(bool pointer)
{
    const bool known = damage_.available() && !pixels_stale_;
    const bool drawn = known && damage_.changed();
    // If an event already reported drawing, all requests are sent together. The answer about the
    // pointer follows all events of earlier drawing.
    if (drawn)
        damage_.request();
    if (pointer)
        pointer_.request(place_.window);
    if (drawn)
        damage_.collect(place_, changed_);
    if (pointer)
        pointer_.collect();
    if (!known) {
        changed_.add_all();
        damage_.reset();
        serial_before_ = 0;
    } else if (!drawn && damage_.changed()) {
        damage_.request();
        damage_.collect(place_, changed_);
    }
}

uint32_t X11Source::checks_due() const
{
    const auto due = (std::chrono::steady_clock::now() - checked_until_) / time_between_checks;
    return static_cast<uint32_t>(std::min<int64_t>(due, X11Image::checks));
}

void X11Source::checked(uint32_t checks)
{
    const Time all = std::chrono::steady_clock::now();
    checked_until_ =
        checks == X11Image::checks ? all : checked_until_ + checks * time_between_checks;
}

bool X11Source::fetch(uint32_t checks)
{
    pixels_stale_ = true;
    if (!changed_.empty())
        image_->request(place_, changed_);
    // The room behind the image fits one check at a time.
    for (uint32_t step = 0; step == 0 || step < checks; ++step) {
        if (step < checks)
            image_->request_check(place_);
        if (!image_->collect(changed_))
            return false;
    }
    pixels_stale_ = false;
    return true;
}

void X11Source::note_refusal()
{
    if (!told_of_refusal_)
        HOST_LOGW("The X server of DISPLAY=\"%s\" refuses access to the screen's pixels.",
                  connection_->display().c_str());
    told_of_refusal_ = true;
}

void X11Source::note_loss()
{
    if (connection_->was_cut() || std::exchange(told_of_loss_, true))
        return;
    const std::string end = connection_->lost() ? "" : view_->end();
    if (end.empty())
        HOST_LOGE(
            "The X display DISPLAY=\"%s\" went away: there are no more pictures. Start the recording again when the display is back.",
            connection_->display().c_str());
    else
        HOST_LOGE("DISPLAY=\"%s\": %s. There are no more pictures.", connection_->display().c_str(),
                  end.c_str());
    counters().display_lost.store(1, std::memory_order_relaxed);
}

} // namespace zu3host
