#pragma once

#include "capture/portal/message_bus.h"
#include "capture/portal/restore_token.h"

#include <common/descriptor.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace zu3host {

/** Why a portal gives no screen. */
struct PortalProblem {
    enum class Kind : uint8_t { no_bus, no_portal, failed } kind = Kind::failed;
    /** the end of a sentence, with the remedy */
    std::string reason;
};

/** Options of a session. */
struct PortalWish {
    /** asks the user even after an earlier grant */
    bool ask = false;
    /** called once, before the user is asked */
    std::function<void()> dialog_opens;
};

/** From this version on, the portal keeps the user's choice. */
inline constexpr uint32_t version_of_tokens = 4;

/** The portal's abilities; 0 if it has no such property. */
struct PortalAbilities {
    uint32_t version = 0;
    /** bits: 1 = monitors, 2 = windows */
    uint32_t sources = 0;
    /** bits: 1 = hidden, 2 = embedded in the picture, 4 = metadata */
    uint32_t cursor_modes = 0;
};

/** A screen that the portal shares with this process, until destruction or closed(). */
class PortalSession {
public:
    /**
     * Asks the portal. Waits up to `user_patience` for the user, up to five seconds for programs.
     */
    static std::unique_ptr<PortalSession> open(const PortalWish& wish, const RestoreToken& token,
                                               PortalProblem& problem);
    /** The portal's abilities; nullopt with the reason why it cannot be used. */
    static std::optional<PortalAbilities> examine(PortalProblem& problem);

    /** A connection to PipeWire that sees only the shared screen. Call it once. */
    common::Descriptor take_remote() { return std::move(remote_); }
    /** The number of the screen's node there. */
    uint32_t node() const { return node_; }
    /** Whether the pointer comes as metadata instead of in the pictures. */
    bool pointer_apart() const { return pointer_apart_; }
    /** Whether the user or the desktop ended the sharing; waits up to `limit` for that signal. */
    bool closed(MessageBus::Milliseconds limit);

    /** longest time for the user's answer */
    static constexpr MessageBus::Milliseconds user_patience = std::chrono::minutes(2);

private:
    /** The response to a request; the message is read up to its results. */
    struct Response {
        uint32_t code;
        BusAnswer message;
    };
    /** How a request's call begins, and its options. */
    struct Arguments {
        MessageBus::Fill before{};
        MessageBus::Fill options{};
    };

    bool connect(PortalProblem& problem);
    std::optional<PortalAbilities> read_abilities(PortalProblem& problem);
    bool create(PortalProblem& problem);
    bool select(const PortalAbilities& abilities, const std::string& token, PortalProblem& problem);
    bool start(const PortalWish& wish, PortalProblem& problem);
    bool open_remote(PortalProblem& problem);
    bool request(const char* method, const Arguments& arguments, MessageBus::Milliseconds patience,
                 PortalProblem& problem);
    bool wait_for_response(MessageBus::Milliseconds patience, PortalProblem& problem);
    void take_response(sd_bus_message* signal);
    bool read_streams(sd_bus_message* results);

    MessageBus bus_;
    std::string session_;
    // of the request that is under way
    std::string awaited_;
    std::optional<Response> response_;
    bool closed_ = false;
    // the portal's process ended
    bool portal_gone_ = false;
    bool pointer_apart_ = false;
    uint32_t requests_ = 0;
    uint32_t node_ = 0;
    std::string token_;
    common::Descriptor remote_;
};

} // namespace zu3host
