#include "capture/portal/portal_source.h"

#include <android/log.h>

namespace zu3host {

std::optional<BgraImage> PortalSource::grab(const GrabRequest& request)
{
    if (lost_)
        return std::nullopt;
    if (const auto reason = loss()) {
        note_loss(*reason);
        return std::nullopt;
    }
    // Without metadata the compositor has drawn the pointer into the picture, or left it out.
    stream_->show(canvas_, request.pointer && session_->pointer_apart());
    return canvas_.has_picture() ? std::optional(canvas_.image()) : std::nullopt;
}

std::optional<std::string> PortalSource::loss()
{
    // The stream of a closed session ends too, often before the bus reports the reason.
    constexpr MessageBus::Milliseconds reason_limit(300);
    const auto ended = stream_->ended();
    if (session_->closed(ended ? reason_limit : MessageBus::Milliseconds(0)))
        return "the user or the desktop ended the sharing";
    return ended;
}

void PortalSource::note_loss(const std::string& reason)
{
    lost_ = true;
    const std::string sentence =
        "The shared screen went away (" + reason +
        "): there are no more pictures. Start the recording again to share it again.";
    host_.log(ANDROID_LOG_ERROR, sentence.c_str());
    host_.note_lost_display();
}

} // namespace zu3host
