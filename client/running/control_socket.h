#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "process/signals.h"
#include "running/control_folder.h"

namespace client {

/** Most bytes of a command or an answer. */
inline constexpr size_t longest_control_text = 4096;

/**
 * Listens for `screenrecord control`: a connection of the same user sends one line and gets one
 * answer. Never blocks: drops a silent peer after two seconds, or earlier to make room for others,
 * and the answer for a peer that does not read.
 */
class ControlSocket {
public:
    using Ticket = uint64_t;
    /** Answers a line: "ok", "ok: ...", "error: ..." or a JSON object. nullopt = answer() follows. */
    using Handle =
        std::function<std::optional<std::string>(const std::string& line, Ticket ticket)>;

    /** @param verbose prints the reason if it cannot listen */
    explicit ControlSocket(bool verbose);
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;
    ~ControlSocket();

    /** To poll for POLLIN; -1 = it does not listen. */
    int fd() const { return events_.get(); }
    /** Accepts waiting connections and answers their lines by `handle`, a few per call. */
    void serve(const Handle& handle);
    /** Answers a line for which `handle` returned nullopt. */
    void answer(Ticket ticket, const std::string& text);

private:
    struct Peer {
        Ticket ticket;
        common::Descriptor socket;
        TimePoint since;
        /** its line was read, its answer is due */
        bool asked = false;
    };
    void listen();
    void accept_peers();
    void pause_accepting();
    void resume_accepting();
    void make_room();
    void drop_silent();
    bool hear(Peer& peer, const Handle& handle);

    std::optional<ControlFolder> folder_;
    common::Descriptor events_;
    common::Descriptor listener_;
    // runs while connections cannot be accepted
    common::Descriptor retry_;
    std::deque<Peer> peers_;
    Ticket last_ticket_ = 0;
};

} // namespace client
