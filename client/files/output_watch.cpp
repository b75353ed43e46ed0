#include "files/output_watch.h"

#include <climits>
#include <unistd.h>

#include "process/messages.h"

namespace client {
namespace {

// unit of st_blocks on every file system
constexpr off_t block_bytes = 512;

bool leads_to(const std::string& path, const struct stat& file)
{
    struct stat named = {};
    return stat(path.c_str(), &named) == 0 && common::is_one_file(named, file);
}

/** The name that the kernel has for the file; empty if it does not lead to the file. */
std::string name_known_to_kernel(int fd, const struct stat& file)
{
    char target[PATH_MAX];
    const ssize_t length =
        readlink(format_text("/proc/self/fd/%d", fd).c_str(), target, sizeof target);
    const std::string name(target, length > 0 ? static_cast<size_t>(length) : 0);
    return leads_to(name, file) ? name : "";
}

/**
 * Whether a part in the middle is missing, as after a write behind the end of a file that another
 * program has cut.
 */
bool has_hole(int fd, off_t size)
{
    const off_t hole = lseek(fd, 0, SEEK_HOLE);
    return hole >= 0 && hole < size;
}

} // namespace

OutputWatch::OutputWatch(const OutputFile& file)
    : file_(file), path_(file.path()), next_(Clock::now() + std::chrono::seconds(1))
{
}

void OutputWatch::expect_size(uint64_t bytes)
{
    writer_knows_size_ = true;
    cut_ = cut_ || (file_.regular() && file_.size() < bytes);
}

std::optional<std::string> OutputWatch::problem()
{
    if (Clock::now() < next_)
        return std::nullopt;
    next_ = Clock::now() + std::chrono::seconds(1);
    return look(false);
}

std::optional<std::string> OutputWatch::problem_at_end()
{
    auto found = look(true);
    if (!found && path_.empty())
        found = "the recording no longer has the name " + file_.path() +
                ", and its new name is not known";
    return found;
}

// The search for a hole blocks behind a running write, on a slow disk for long. So it runs only at
// the end, or if the file has fewer bytes on its disk than its size.
std::optional<std::string> OutputWatch::look(bool closely)
{
    struct stat now = {};
    if (!file_.regular() || fstat(file_.fd(), &now) != 0)
        return std::nullopt;
    const std::string lost = "cannot record into " + file_.path() + " any more: ";
    struct stat named = {};
    if (now.st_nlink == 0) {
        path_.clear();
        return lost +
               (stat(file_.path().c_str(), &named) == 0
                    ? "another file has replaced it, and the recording is lost with the old one"
                    : "it was removed, and the recording with it");
    }
    const bool look_for_hole =
        !writer_knows_size_ && (closely || now.st_blocks * block_bytes < now.st_size);
    if (cut_ || now.st_size < size_ || (look_for_hole && has_hole(file_.fd(), now.st_size)))
        return lost + "another program has cut it, and the recording before is missing";
    size_ = now.st_size;
    if (!leads_to(path_, now))
        follow_name();
    return std::nullopt;
}

void OutputWatch::follow_name()
{
    struct stat now = {};
    if (fstat(file_.fd(), &now) != 0)
        return;
    const std::string name = name_known_to_kernel(file_.fd(), now);
    if (name == path_)
        return;
    path_ = name;
    const std::string begin = file_.path() + " was renamed";
    print_message(name.empty() ? begin + "; its new name is not known"
                               : begin + "; the recording continues in " + name);
}

} // namespace client
