#include "capture/portal/portal_session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace zu3host {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds patience = seconds(5);
constexpr milliseconds ping_interval = seconds(3);

constexpr char portal[] = "org.freedesktop.portal.Desktop";
constexpr char desktop_path[] = "/org/freedesktop/portal/desktop";
constexpr char screen_cast[] = "org.freedesktop.portal.ScreenCast";

constexpr uint32_t monitors_and_windows = 1 | 2;
constexpr uint32_t embedded_pointer = 2;
constexpr uint32_t pointer_metadata = 4;
constexpr uint32_t until_revoked = 2;
constexpr uint32_t version_of_cursor_modes = 2;

constexpr char no_backend[] =
    "the desktop portal offers no screen (org.freedesktop.portal.ScreenCast): install the part of it that belongs to this desktop, such as xdg-desktop-portal-gnome, xdg-desktop-portal-kde or xdg-desktop-portal-wlr";
constexpr char hung[] =
    "the desktop portal does not answer: restart it with 'systemctl --user restart xdg-desktop-portal'";

/** Calls `visit` with each key of a dictionary a{sv}, the message at its variant. */
template <typename Visit> void visit_dictionary(sd_bus_message* message, Visit visit)
{
    if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0)
        return;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read(message, "s", &key) <= 0)
            return;
        if (!visit(std::string_view(key)) && sd_bus_message_skip(message, "v") < 0)
            return;
        if (sd_bus_message_exit_container(message) < 0)
            return;
    }
    sd_bus_message_exit_container(message);
}

/** Reads a variant if it contains that type. @return whether it was read */
template <typename T> bool read_variant(sd_bus_message* message, const char* type, T* value)
{
    const char* contents = nullptr;
    char kind = 0;
    if (sd_bus_message_peek_type(message, &kind, &contents) <= 0 || kind != 'v' ||
        std::strcmp(contents, type) != 0)
        return false;
    return sd_bus_message_read(message, "v", type, value) > 0;
}

bool read_text(sd_bus_message* message, std::string& text)
{
    const char* value = nullptr;
    const bool read = read_variant(message, "s", &value) || read_variant(message, "o", &value);
    if (read)
        text = value;
    return read;
}

int add_option(sd_bus_message* message, const char* key, const char* type, uint32_t value)
{
    return sd_bus_message_append(message, "{sv}", key, type, value);
}

int add_option(sd_bus_message* message, const char* key, const char* value)
{
    return sd_bus_message_append(message, "{sv}", key, "s", value);
}

bool is_one_of(std::string_view name, std::initializer_list<std::string_view> errors)
{
    return std::any_of(errors.begin(), errors.end(), [name](std::string_view error) {
        return name == std::string("org.freedesktop.DBus.Error.") + std::string(error);
    });
}

PortalProblem problem_of(const BusAnswer& answer)
{
    using Kind = PortalProblem::Kind;
    const std::string name = answer.error_name();
    if (is_one_of(name, {"ServiceUnknown", "NameHasNoOwner"}) ||
        name.starts_with("org.freedesktop.DBus.Error.Spawn"))
        return {
            Kind::no_portal,
            "no desktop portal runs in this session: install xdg-desktop-portal and the part of it that belongs to this desktop"};
    if (is_one_of(name, {"UnknownInterface", "UnknownMethod", "InvalidArgs"}))
        return {Kind::no_portal, no_backend};
    if (name.empty() || is_one_of(name, {"NoReply", "Timeout", "TimedOut"}))
        return {Kind::failed, hung};
    return {Kind::failed, "the desktop portal refuses: " + answer.error_text()};
}

/** A name that is valid in a path of an object. */
std::string path_name(std::string_view unique_name)
{
    std::string name(unique_name.substr(unique_name.starts_with(':') ? 1 : 0));
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

} // namespace

bool PortalSession::connect(PortalProblem& problem)
{
    if (const int error = bus_.connect(patience); error != 0) {
        problem = {
            PortalProblem::Kind::no_bus,
            error == ETIMEDOUT
                ? "the session's message bus does not answer"
                : "this session has no message bus (DBUS_SESSION_BUS_ADDRESS, or 'bus' in XDG_RUNTIME_DIR): record from the desktop's own terminal"};
        return false;
    }
    bus_.listen("type='signal',sender='org.freedesktop.portal.Desktop',"
                "interface='org.freedesktop.portal.Request',member='Response'",
                [this](sd_bus_message* signal) { take_response(signal); });
    bus_.listen("type='signal',sender='org.freedesktop.portal.Desktop',"
                "interface='org.freedesktop.portal.Session',member='Closed'",
                [this](sd_bus_message* signal) {
                    const char* const path = sd_bus_message_get_path(signal);
                    closed_ = closed_ || (path && session_ == path);
                });
    bus_.listen("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                "member='NameOwnerChanged',arg0='org.freedesktop.portal.Desktop'",
                [this](sd_bus_message* signal) {
                    const char *name = nullptr, *before = nullptr, *after = nullptr;
                    if (sd_bus_message_read(signal, "sss", &name, &before, &after) > 0)
                        portal_gone_ = portal_gone_ || *before;
                });
    return true;
}

std::optional<PortalAbilities> PortalSession::read_abilities(PortalProblem& problem)
{
    const BusAnswer answer = bus_.call(
        portal, desktop_path, "org.freedesktop.DBus.Properties", "GetAll",
        [](sd_bus_message* call) { return sd_bus_message_append(call, "s", screen_cast); },
        patience);
    if (!answer) {
        problem = problem_of(answer);
        return std::nullopt;
    }
    PortalAbilities found;
    visit_dictionary(answer.message(), [&](std::string_view key) {
        if (key == "version")
            return read_variant(answer.message(), "u", &found.version);
        if (key == "AvailableSourceTypes")
            return read_variant(answer.message(), "u", &found.sources);
        if (key == "AvailableCursorModes")
            return read_variant(answer.message(), "u", &found.cursor_modes);
        return false;
    });
    if (found.version > 0 && (found.sources & monitors_and_windows))
        return found;
    problem = {PortalProblem::Kind::no_portal, no_backend};
    return std::nullopt;
}

std::optional<PortalAbilities> PortalSession::examine(PortalProblem& problem)
{
    PortalSession session;
    return session.connect(problem) ? session.read_abilities(problem) : std::nullopt;
}

std::unique_ptr<PortalSession>
PortalSession::open(const PortalWish& wish, const RestoreToken& token, PortalProblem& problem)
{
    auto session = std::make_unique<PortalSession>();
    if (!session->connect(problem))
        return nullptr;
    const auto abilities = session->read_abilities(problem);
    const std::string kept = wish.ask ? "" : token.read();
    if (!abilities || !session->create(problem) || !session->select(*abilities, kept, problem) ||
        !session->start(wish, problem))
        return nullptr;
    // A token serves one session; the start of this one returns the next token.
    if (abilities->version >= version_of_tokens)
        token.write(session->token_);
    return session->open_remote(problem) ? std::move(session) : nullptr;
}

bool PortalSession::create(PortalProblem& problem)
{
    const auto options = [](sd_bus_message* call) {
        return add_option(call, "session_handle_token", "screenrecord");
    };
    if (!request("CreateSession", {.options = options}, patience, problem))
        return false;
    sd_bus_message* const results = response_->message.message();
    visit_dictionary(results, [&](std::string_view key) {
        return key == "session_handle" && read_text(results, session_);
    });
    if (sd_bus_object_path_is_valid(session_.c_str()) > 0)
        return true;
    problem = {PortalProblem::Kind::failed, "the desktop portal names no session"};
    return false;
}

bool PortalSession::select(const PortalAbilities& abilities, const std::string& token,
                           PortalProblem& problem)
{
    const bool modes = abilities.version >= version_of_cursor_modes;
    pointer_apart_ = modes && (abilities.cursor_modes & pointer_metadata);
    const bool embedded = modes && !pointer_apart_ && (abilities.cursor_modes & embedded_pointer);
    const auto options = [&](sd_bus_message* call) {
        int result = add_option(call, "types", "u", abilities.sources & monitors_and_windows);
        if (result >= 0)
            result = sd_bus_message_append(call, "{sv}", "multiple", "b", 0);
        if (result >= 0 && (pointer_apart_ || embedded))
            result = add_option(call, "cursor_mode", "u",
                                pointer_apart_ ? pointer_metadata : embedded_pointer);
        if (result >= 0 && abilities.version >= version_of_tokens)
            result = add_option(call, "persist_mode", "u", until_revoked);
        if (result >= 0 && abilities.version >= version_of_tokens && !token.empty())
            result = add_option(call, "restore_token", token.c_str());
        return result;
    };
    const auto session = [this](sd_bus_message* call) {
        return sd_bus_message_append(call, "o", session_.c_str());
    };
    return request("SelectSources", {.before = session, .options = options}, patience, problem);
}

bool PortalSession::start(const PortalWish& wish, PortalProblem& problem)
{
    if (wish.dialog_opens)
        wish.dialog_opens();
    const auto session = [this](sd_bus_message* call) {
        return sd_bus_message_append(call, "os", session_.c_str(), "");
    };
    if (!request("Start", {.before = session}, user_patience, problem))
        return false;
    sd_bus_message* const results = response_->message.message();
    bool shared = false;
    visit_dictionary(results, [&](std::string_view key) {
        if (key == "restore_token")
            return read_text(results, token_);
        if (key != "streams")
            return false;
        shared = read_streams(results);
        return shared;
    });
    if (!shared)
        problem = {PortalProblem::Kind::failed,
                   "the desktop portal granted a screen, but names none"};
    return shared;
}

/** Reads the first stream of a variant a(ua{sv}). */
bool PortalSession::read_streams(sd_bus_message* results)
{
    bool found = false;
    if (sd_bus_message_enter_container(results, 'v', "a(ua{sv})") <= 0 ||
        sd_bus_message_enter_container(results, 'a', "(ua{sv})") <= 0)
        return false;
    while (sd_bus_message_enter_container(results, 'r', "ua{sv}") > 0) {
        uint32_t node = 0;
        if (sd_bus_message_read(results, "u", &node) <= 0 ||
            sd_bus_message_skip(results, "a{sv}") < 0 || sd_bus_message_exit_container(results) < 0)
            return false;
        node_ = found ? node_ : node;
        found = true;
    }
    return found && sd_bus_message_exit_container(results) >= 0 &&
           sd_bus_message_exit_container(results) >= 0;
}

bool PortalSession::open_remote(PortalProblem& problem)
{
    const BusAnswer answer = bus_.call(
        portal, desktop_path, screen_cast, "OpenPipeWireRemote",
        [this](sd_bus_message* call) {
            return sd_bus_message_append(call, "oa{sv}", session_.c_str(), 0);
        },
        patience);
    int fd = -1;
    if (answer && sd_bus_message_read(answer.message(), "h", &fd) > 0)
        remote_ = common::Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0)); // the message keeps its own
    if (remote_)
        return true;
    problem = answer.message() && !answer
                  ? PortalProblem{PortalProblem::Kind::failed,
                                  "PipeWire cannot be reached (" + answer.error_text() +
                                      "): install and start pipewire and wireplumber"}
                  : problem_of(answer);
    return false;
}

bool PortalSession::request(const char* method, const Arguments& arguments, milliseconds limit,
                            PortalProblem& problem)
{
    const std::string token = "screenrecord" + std::to_string(++requests_);
    awaited_ =
        std::string(desktop_path) + "/request/" + path_name(bus_.unique_name()) + "/" + token;
    response_.reset();
    const BusAnswer answer = bus_.call(
        portal, desktop_path, screen_cast, method,
        [&](sd_bus_message* call) {
            int result = arguments.before ? arguments.before(call) : 0;
            if (result >= 0)
                result = sd_bus_message_open_container(call, 'a', "{sv}");
            if (result >= 0)
                result = add_option(call, "handle_token", token.c_str());
            if (result >= 0 && arguments.options)
                result = arguments.options(call);
            return result >= 0 ? sd_bus_message_close_container(call) : result;
        },
        patience);
    if (!answer) {
        problem = problem_of(answer);
        return false;
    }
    if (!wait_for_response(limit, problem))
        return false;
    if (response_->code == 0)
        return true;
    problem = {
        PortalProblem::Kind::failed,
        response_->code == 1
            ? "the desktop's dialog was closed without a choice, or the choice was refused: record again and share a screen or a window"
            : "the desktop portal could not open its dialog, or ended it"};
    return false;
}

/** Waits for the user, and meanwhile checks that the portal answers. */
bool PortalSession::wait_for_response(milliseconds limit, PortalProblem& problem)
{
    bool silent = false;
    const auto over = [&] { return response_ || portal_gone_ || silent; };
    for (milliseconds left = limit; left.count() > 0 && !over(); left -= ping_interval) {
        if (bus_.run_until(over, std::min(left, ping_interval)))
            break;
        const BusAnswer pong =
            bus_.call(portal, desktop_path, "org.freedesktop.DBus.Peer", "Ping", nullptr, patience);
        silent = !pong && !response_;
    }
    if (response_)
        return true;
    problem = {PortalProblem::Kind::failed,
               silent || limit == patience ? hung
               : portal_gone_              ? "the desktop portal went away before it answered"
                              : "the desktop's dialog was not answered within two minutes"};
    return false;
}

void PortalSession::take_response(sd_bus_message* signal)
{
    const char* const path = sd_bus_message_get_path(signal);
    uint32_t code = 0;
    if (path && awaited_ == path && sd_bus_message_read(signal, "u", &code) > 0)
        response_ = Response{code, BusAnswer(signal)};
}

bool PortalSession::closed(milliseconds limit)
{
    if (limit.count() > 0)
        bus_.run_until([this] { return closed_; }, limit);
    else
        bus_.process();
    return closed_;
}

} // namespace zu3host
