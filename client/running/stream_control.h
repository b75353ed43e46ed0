#pragma once

#include <functional>
#include <string>
#include <variant>

#include "command_line/options.h"

namespace client {

namespace control {
struct BitRate {
    uint32_t bits_per_second;
};
struct KeyFrame {};
struct Pause {};
struct Resume {};
struct Stop {};
/** What a line that is no command gets to hear. */
struct Unknown {
    std::string reason;
};
using Command = std::variant<Unknown, BitRate, KeyFrame, Pause, Resume, Stop, WatermarkOptions>;

/** Understands one line, without its line end. */
Command parse(const std::string& line);
} // namespace control

/** Commands for a running stream, a line each, from standard input. */
class ControlInput {
public:
    /**
     * @param asked by --control; else only a terminal of which we are the foreground job is read
     */
    explicit ControlInput(bool asked);

    /** To poll for POLLIN; -1 when there is nothing to read (any more). */
    int fd() const { return fd_; }
    /** Reads what is there, and hands each complete line to `handle`. */
    void read_lines(const std::function<void(const std::string&)>& handle);

private:
    int fd_ = -1;
    std::string unfinished_;
    /** the line that is being read, since it is too long */
    bool refused_ = false;
};

} // namespace client
