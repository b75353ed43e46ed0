#pragma once

#include "capture/portal/pipewire_stream.h"
#include "capture/portal/portal_session.h"
#include "capture/portal/screen_canvas.h"
#include "capture/screen_module.h"

#include <memory>
#include <optional>

namespace zu3host {

/**
 * The screen or window that the user shares through the desktop portal. When the sharing ends, one
 * log line and the statistics say so, and grabs return no more pictures.
 */
class PortalSource final : public WaitingSource {
public:
    PortalSource(const ScreenHost& host, std::unique_ptr<PortalSession> session,
                 std::unique_ptr<PipewireStream> stream)
        : host_(host), session_(std::move(session)), stream_(std::move(stream)),
          canvas_(host.next_image_serial)
    {
    }

    /** Does not wait, since the compositor sends a picture only after a change. */
    std::optional<BgraImage> grab(const GrabRequest& request) override;
    void cut() override {}

private:
    std::optional<std::string> loss();
    void note_loss(const std::string& reason);

    const ScreenHost host_;
    const std::unique_ptr<PortalSession> session_;
    const std::unique_ptr<PipewireStream> stream_;
    ScreenCanvas canvas_;
    bool lost_ = false;
};

} // namespace zu3host
