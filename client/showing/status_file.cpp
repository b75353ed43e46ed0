#include "showing/status_file.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "files/output_file.h"
#include "process/messages.h"

namespace client {
namespace {

// more than a path of 4096 bytes and a sentence around it
constexpr size_t longest_text = 16384;

/**
 * Why the text was not written, as a sentence; empty if it was. `file` stays locked between texts.
 */
std::string write_whole(std::optional<AtomicFile>& file, const std::string& path,
                        const std::string& line)
{
    try {
        if (!file)
            file.emplace(path);
        file->write(line.data(), line.size());
        file->put_in_place(true);
        return "";
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

/** Closes everything but `kept`, so that no reader of our pipes waits for the disk. */
void keep_only(int kept)
{
    const auto fd = static_cast<unsigned>(kept);
    if (fd > 0)
        close_range(0, fd - 1, 0);
    close_range(fd + 1, ~0u, 0);
}

} // namespace

StatusFile::StatusFile(std::string path, const std::string& text) : path_(std::move(path))
{
    start_process();
    send(text);
    if (const auto failure = take_answer(Clock::now() + std::chrono::seconds(1)))
        throw Failure(*failure, ExitCode::usage);
}

// The process ends after its last write; if its disk blocks it, it is left behind.
StatusFile::~StatusFile()
{
    socket_ = common::Descriptor();
    waitpid(process_, nullptr, WNOHANG);
}

void StatusFile::start_process()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure("cannot write to " + path_ + ": " + error_text(errno));
    socket_ = common::Descriptor(ends[0]);
    const common::Descriptor other_end(ends[1]);
    process_ = fork();
    if (process_ < 0)
        throw Failure("cannot write to " + path_ + ": " + error_text(errno));
    if (process_ == 0)
        run(other_end.get(), path_);
}

void StatusFile::run(int socket, const std::string& path)
{
    prctl(PR_SET_NAME, status_writer_name);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    keep_only(socket);
    std::optional<AtomicFile> file;
    std::string text(longest_text, '\0');
    while (true) {
        const ssize_t size = recv(socket, text.data(), text.size(), 0);
        if (size <= 0)
            _exit(0);
        const std::string failure =
            write_whole(file, path, text.substr(0, static_cast<size_t>(size)));
        ::send(socket, failure.c_str(), failure.size() + 1, MSG_NOSIGNAL);
    }
}

void StatusFile::send(const std::string& text)
{
    const std::string line = text + "\n";
    pending_ = ::send(socket_.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ||
               pending_;
}

std::optional<std::string> StatusFile::take_answer(TimePoint limit)
{
    pollfd answer{socket_.get(), POLLIN, 0};
    if (!pending_ || poll(&answer, 1, poll_timeout(limit)) != 1)
        return std::nullopt;
    std::string text(longest_text, '\0');
    const ssize_t size = recv(socket_.get(), text.data(), text.size(), 0);
    pending_ = false;
    if (size <= 0)
        return "cannot write to " + path_ + " any more: the process that writes it is gone";
    return size > 1 ? std::optional(text.substr(0, static_cast<size_t>(size) - 1)) : std::nullopt;
}

std::optional<std::string> StatusFile::update(const std::string& text)
{
    auto failure = take_answer(Clock::now());
    if (!failure && !pending_)
        send(text);
    return failure;
}

std::optional<std::string> StatusFile::finish(const std::string& text, TimePoint limit)
{
    if (auto failure = take_answer(limit))
        return failure;
    // queued after the previous text, if the disk still blocks that one
    send(text);
    return take_answer(limit);
}

} // namespace client
