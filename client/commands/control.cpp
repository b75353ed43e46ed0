#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "commands/commands.h"
#include "process/messages.h"
#include "running/control_socket.h"

namespace client {
namespace {

/** Longest waits for a recorder's answer; a save answers once its file is written. */
constexpr timeval usual_patience{.tv_sec = 5, .tv_usec = 0};
constexpr timeval patience_of_a_save{.tv_sec = 120, .tv_usec = 0};

/** A connection to a process's socket; an empty descriptor if that process is gone. */
common::Descriptor connect_to(const ControlFolder& folder, pid_t process)
{
    common::Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const std::string name = ControlFolder::socket_name(process);
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    folder.path_of(name).copy(address.sun_path, sizeof address.sun_path - 1);
    // A full queue of connections makes connect() wait as well.
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &usual_patience, sizeof usual_patience);
    if (!socket)
        throw Failure("cannot connect: " + error_text(errno));
    if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return socket;
    if (errno == ECONNREFUSED) // left by a killed recorder whose process id is in use again
        unlinkat(folder.fd(), name.c_str(), 0);
    else if (errno != ENOENT)
        throw Failure(format_text("the recorder with process %d does not answer: %s", process,
                                  error_text(errno).c_str()));
    return {};
}

struct Recorder {
    pid_t process;
    common::Descriptor socket;
};

std::vector<Recorder> recorders(const ControlFolder& folder, std::optional<uint32_t> wanted)
{
    std::vector<Recorder> found;
    for (const pid_t process : folder.processes()) {
        if (wanted && static_cast<uint32_t>(process) != *wanted)
            continue;
        common::Descriptor socket = connect_to(folder, process);
        if (socket && peer_is_own_user(socket.get()))
            found.push_back({process, std::move(socket)});
    }
    return found;
}

std::string listed_processes(const std::vector<Recorder>& found)
{
    std::vector<std::string> numbers;
    numbers.reserve(found.size());
    for (const Recorder& each : found)
        numbers.push_back(std::to_string(each.process));
    return listed(numbers, "and");
}

Recorder the_recorder(const ControlOptions& options)
{
    auto found = [&] {
        try {
            return recorders(ControlFolder(), options.process);
        } catch (const Failure& failure) {
            throw Failure(std::string("cannot find a recorder: ") + failure.what());
        }
    }();
    if (found.empty() && options.process)
        throw Failure(format_text("process %u is not one of your recorders", *options.process));
    if (found.empty())
        throw Failure("you have no running recorder: 'screenrecord record' starts one");
    if (found.size() > 1)
        throw Failure("you have several running recorders, processes " + listed_processes(found) +
                          ": choose one with --pid",
                      ExitCode::usage);
    return std::move(found.front());
}

std::string ask(const Recorder& recorder, const std::string& line)
{
    const timeval& patience = line == "save" ? patience_of_a_save : usual_patience;
    const int socket = recorder.socket.get();
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string text(longest_control_text, '\0');
    ssize_t size = send(socket, line.data(), line.size(), MSG_NOSIGNAL);
    if (size >= 0)
        size = recv(socket, text.data(), text.size(), 0);
    if (size == 0)
        throw Failure(format_text("the recorder with process %d ended", recorder.process));
    if (size < 0)
        throw Failure(
            format_text("the recorder with process %d does not answer", recorder.process));
    text.resize(static_cast<size_t>(size));
    return text;
}

} // namespace

ExitCode run(const ControlOptions& options, CommandContext& context)
{
    const std::string text = ask(the_recorder(options), options.order);
    constexpr std::string_view refused = "error: ", done = "ok: ";
    if (text.starts_with(refused))
        throw Failure("the recorder refused: " + text.substr(refused.size()));
    if (text.starts_with(done))
        context.output.print_path(text.substr(done.size()));
    else if (text != "ok")
        context.output.print_line(text);
    return ExitCode::complete;
}

} // namespace client
