#include "capture/x11_source.h"

#include "base/host_log.h"
#include "statistics/counters.h"

namespace zu3host {

X11Damage::X11Damage(X11Connection& connection) : connection_(connection)
{
    xcb_connection_t* xcb = connection.xcb();
    if (!connection.has(&xcb_damage_id))
        return;
    const auto asked = xcb_damage_query_version(xcb, 1, 1);
    if (!connection.wait<xcb_damage_query_version_reply_t>(asked.sequence).reply)
        return;
    first_event_ = xcb_get_extension_data(xcb, &xcb_damage_id)->first_event;
    damage_ = xcb_generate_id(xcb);
    // One event when the screen is no longer as it was, and none more before it is forgotten:
    // whatever moves, that is one event a picture.
    xcb_damage_create(xcb, damage_, connection.screen().root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
}

bool X11Damage::handle_event(const xcb_generic_event_t& event)
{
    if (!available() || (event.response_type & 0x7F) != first_event_ + XCB_DAMAGE_NOTIFY)
        return false;
    changed_ = true;
    return true;
}

void X11Damage::reset()
{
    if (!available())
        return;
    changed_ = false;
    xcb_damage_subtract(connection_.xcb(), damage_, XCB_NONE, XCB_NONE);
}

namespace {

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

std::unique_ptr<X11Source> X11Source::open()
{
    std::unique_ptr<X11Connection> connection = X11Connection::open();
    if (!connection || !has_known_pixels(*connection))
        return nullptr;
    return std::unique_ptr<X11Source>(new X11Source(std::move(connection)));
}

X11Source::X11Source(std::unique_ptr<X11Connection> connection)
    : connection_(std::move(connection)), pointer_(*connection_), damage_(*connection_)
{
    // The root window is reconfigured when the screen is resized.
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection_->xcb(), connection_->screen().root, XCB_CW_EVENT_MASK,
                                 &events);
    connection_->on_event([this](const xcb_generic_event_t& event) { handle_event(event); });
}

X11Source::~X11Source()
{
    // detaches over the connection
    image_.reset();
}

void X11Source::handle_event(const xcb_generic_event_t& event)
{
    if (pointer_.handle_event(event) || damage_.handle_event(event))
        return;
    if ((event.response_type & 0x7F) == XCB_CONFIGURE_NOTIFY)
        size_stale_ = true;
}

std::optional<BgraImage> X11Source::grab(const GrabRequest& request)
{
    // the screen may be resized between the question for its size and the fetch
    constexpr int attempts = 3;
    connection_->take_events();
    pointer_known_ = false;
    if (still_shows(request))
        return image();
    for (int attempt = 0; attempt < attempts && !connection_->lost(); ++attempt) {
        if ((size_stale_ || !image_) && !make_image())
            continue;
        if (fetch(request))
            return image();
        size_stale_ = true;
    }
    if (!connection_->lost())
        note_refusal();
    else if (!connection_->was_cut())
        note_loss();
    return std::nullopt;
}

bool X11Source::make_image()
{
    size_stale_ = false;
    const auto asked = xcb_get_geometry(connection_->xcb(), connection_->screen().root);
    const auto geometry = connection_->wait<xcb_get_geometry_reply_t>(asked.sequence);
    const PictureSize size =
        geometry.reply ? PictureSize{geometry.reply->width, geometry.reply->height} : PictureSize{};
    if (!is_possible(size)) {
        size_stale_ = true;
        return false;
    }
    if (image_ && image_->size() == size)
        return true;
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

bool X11Source::still_shows(const GrabRequest& request)
{
    // Should a driver draw without telling, it is seen a second later.
    constexpr auto longest = std::chrono::seconds(1);
    const auto unchanged = [this] {
        return !damage_.changed() && !size_stale_ && !connection_->lost();
    };
    if (!damage_.available() || !pointer_.available() || !request.pointer || !pointer_drawn_ ||
        !unchanged() || std::chrono::steady_clock::now() - fetched_ > longest)
        return false;
    // The answer about the pointer comes behind every event about what was drawn before it.
    pointer_.request();
    pointer_.collect();
    pointer_known_ = true;
    return unchanged() && pointer_.changes() == pointer_at_;
}

bool X11Source::fetch(const GrabRequest& request)
{
    const bool ask_pointer = request.pointer && !pointer_known_;
    // All questions travel together: one round trip a picture.
    damage_.reset();
    image_->request();
    if (ask_pointer)
        pointer_.request();
    pointer_drawn_ = false;
    const bool fetched = image_->collect();
    if (ask_pointer)
        pointer_.collect();
    if (!fetched)
        return false;
    if (request.pointer)
        pointer_.draw(image_->pixels(), image_->stride(), image_->size());
    pointer_drawn_ = request.pointer;
    pointer_at_ = pointer_.changes();
    fetched_ = std::chrono::steady_clock::now();
    serial_ = next_image_serial();
    return true;
}

void X11Source::note_refusal()
{
    if (!told_of_refusal_)
        HOST_LOGW("The X server of DISPLAY=\"%s\" refuses to hand out the screen's pixels.",
                  connection_->display().c_str());
    told_of_refusal_ = true;
}

void X11Source::note_loss()
{
    if (told_of_loss_)
        return;
    told_of_loss_ = true;
    HOST_LOGE(
        "The X display DISPLAY=\"%s\" went away while it was captured: there are no more pictures. Start the recording again when the display is back.",
        connection_->display().c_str());
    counters().display_lost.store(1, std::memory_order_relaxed);
}

} // namespace zu3host
