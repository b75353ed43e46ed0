// The module libzu3_portal.so: all that calls libsystemd and libpipewire, behind one entry.
#include "capture/screen_module.h"

#include "base/border.h"
#include "capture/portal/pipewire_stream.h"
#include "capture/portal/portal_session.h"
#include "capture/portal/screen_canvas.h"

#include <android/log.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>

namespace zu3host {

namespace {

constexpr auto first_picture_patience = std::chrono::seconds(5);

constexpr char choice_of_dialog[] =
    "the desktop portal's dialog chooses the screen, so no monitor can be named (--monitor, "
    "ZU3_MONITOR); --ask shows the dialog again";

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

    /** Waits until the picture is due at most, since the compositor sends changes only. */
    std::optional<BgraImage> grab(const GrabRequest& request) override;
    bool awaits_changes() const override { return true; }
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

std::optional<BgraImage> PortalSource::grab(const GrabRequest& request)
{
    if (lost_)
        return std::nullopt;
    stream_->wait_for_last_before(request.due);
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
    auto ended = stream_->ended();
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

bool set(const char* variable)
{
    const char* const value = secure_getenv(variable);
    return value && *value && std::strcmp(value, "0") != 0;
}

ScreenOpening failure(const PortalProblem& problem)
{
    using Kind = PortalProblem::Kind;
    const ScreenFailure kind = problem.kind == Kind::no_bus      ? ScreenFailure::no_session
                               : problem.kind == Kind::no_portal ? ScreenFailure::not_offered
                                                                 : ScreenFailure::failed;
    return {.failure = kind, .reason = problem.reason};
}

ScreenOpening open_screen(const ScreenHost& host, const std::string& monitor)
{
    if (!monitor.empty())
        return {.failure = ScreenFailure::failed, .reason = choice_of_dialog};
    PortalWish wish;
    wish.ask = set("ZU3_ASK");
    wish.dialog_opens = [&host] {
        host.log(ANDROID_LOG_INFO,
                 "The desktop portal is asked for a screen; its dialog may need an answer.");
    };
    PortalProblem problem;
    auto session = PortalSession::open(wish, RestoreToken(), problem);
    if (!session)
        return failure(problem);
    std::string reason;
    auto stream = PipewireStream::open(session->take_remote(), session->node(),
                                       first_picture_patience, reason);
    if (!stream)
        return {.failure = ScreenFailure::failed, .reason = reason};
    return {.source = std::make_unique<PortalSource>(host, std::move(session), std::move(stream)),
            .name = "the screen that the desktop portal shares"};
}

std::vector<ScreenOutput> list_outputs(const std::string&)
{
    return {};
}

bool pipewire_listens()
{
    const auto value = [](const char* variable) {
        const char* const text = secure_getenv(variable);
        return std::string(text ? text : "");
    };
    const std::string remote = value("PIPEWIRE_REMOTE");
    std::string folder = value("PIPEWIRE_RUNTIME_DIR");
    if (folder.empty())
        folder = value("XDG_RUNTIME_DIR");
    const std::string path =
        remote.starts_with('/') ? remote : folder + "/" + (remote.empty() ? "pipewire-0" : remote);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const common::Descriptor socket(
        ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return socket &&
           ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

std::string as_sentence(std::string text)
{
    text[0] = static_cast<char>(text[0] >= 'a' && text[0] <= 'z' ? text[0] - 'a' + 'A' : text[0]);
    return text + ".";
}

ScreenFailure examine(const std::string& monitor, std::vector<ScreenFinding>& findings)
{
    using Kind = ScreenFinding::Kind;
    if (!monitor.empty()) {
        findings.push_back({Kind::missing, as_sentence(choice_of_dialog)});
        return ScreenFailure::failed;
    }
    PortalProblem problem;
    const auto abilities = PortalSession::examine(problem);
    if (!abilities) {
        findings.push_back({Kind::missing, as_sentence(problem.reason)});
        return failure(problem).failure;
    }
    findings.push_back({Kind::good, "The desktop portal shares screens (ScreenCast, version " +
                                        std::to_string(abilities->version) + ")."});
    if (abilities->version < version_of_tokens)
        findings.push_back(
            {Kind::limited,
             "The desktop portal cannot keep the user's choice: it asks before each recording."});
    if (pipewire_listens()) {
        findings.push_back({Kind::good, "PipeWire runs, which carries the pictures."});
        return ScreenFailure::none;
    }
    findings.push_back(
        {Kind::missing,
         "PipeWire does not run, which carries the pictures: 'apt install pipewire wireplumber', 'systemctl --user start pipewire wireplumber'."});
    return ScreenFailure::failed;
}

} // namespace

} // namespace zu3host

extern "C" HOST_EXPORT const zu3host::ScreenModule* zu3_screen_module()
{
    using namespace std::chrono_literals;
    // two minutes for the user, five seconds for each answer of bus, portal and PipeWire
    static constexpr zu3host::ScreenModule module{
        std::chrono::milliseconds(zu3host::PortalSession::user_patience) + 40s,
        zu3host::open_screen, zu3host::list_outputs, zu3host::examine};
    return &module;
}
