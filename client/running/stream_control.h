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
struct Save {};
struct Status {};
/** Any other line, with the answer to it. */
struct Unknown {
    std::string reason;
};
using Command =
    std::variant<Unknown, BitRate, KeyFrame, Pause, Resume, Stop, Save, Status, WatermarkOptions>;

/** Parses one line without its line end. */
Command parse(const std::string& line);
} // namespace control

/** Whether standard input is a terminal and this is its foreground job. */
bool on_foreground_terminal();

/** Commands for a running stream or recording, a line each, from standard input. */
class ControlInput {
public:
    /** @param wanted false: standard input is not read */
    explicit ControlInput(bool wanted);

    /** To poll for POLLIN; -1 = nothing to read (any more). */
    int fd() const { return fd_; }
    /** Reads the available bytes, and calls `handle` with each complete line. */
    void read_lines(const std::function<void(const std::string&)>& handle);

private:
    int fd_ = -1;
    std::string unfinished_;
    /** the current line is too long */
    bool refused_ = false;
};

} // namespace client
