#include "capture/portal/restore_token.h"

#include <algorithm>
#include <cerrno>
#include <common/trusted_path.h>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zu3host {

namespace {

constexpr size_t longest_token = 4096;

std::string absolute_folder(const char* variable)
{
    const char* const value = secure_getenv(variable);
    return value && value[0] == '/' ? value : "";
}

std::string usual_path()
{
    std::string folder = absolute_folder("XDG_STATE_HOME");
    if (folder.empty()) {
        folder = absolute_folder("HOME");
        if (folder.empty())
            return {};
        folder += "/.local/state";
    }
    return folder + "/screenrecord/portal-token";
}

/** A line of printable ASCII, as portals make them; a file may contain anything. */
bool is_token(const std::string& text)
{
    return !text.empty() && text.size() <= longest_token &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

/** Creates the folder of `path` and its parents, mode 0700. */
void make_folders(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0700);
}

bool write_all(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    return fsync(fd) == 0;
}

int put_in_place(const common::TrustedPath& file, const std::string& token)
{
    const std::string beside = file.name() + "." + std::to_string(getpid());
    unlinkat(file.folder(), beside.c_str(), 0);
    const common::Descriptor fresh = file.create_beside(beside, O_WRONLY);
    if (!fresh)
        return errno;
    if (write_all(fresh.get(), token + "\n") &&
        renameat(file.folder(), beside.c_str(), file.folder(), file.name().c_str()) == 0)
        return 0;
    const int error = errno;
    unlinkat(file.folder(), beside.c_str(), 0);
    return error;
}

} // namespace

RestoreToken::RestoreToken() : RestoreToken(usual_path()) {}

std::string RestoreToken::read() const
{
    const common::TrustedPath file(path_);
    struct stat found {};
    if (path_.empty() || file.error())
        return {};
    const common::Descriptor fd = file.open(O_RDONLY | O_NONBLOCK);
    if (!fd || fstat(fd.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_uid != geteuid())
        return {};
    std::string text(longest_token + 1, '\0');
    const ssize_t got = ::read(fd.get(), text.data(), text.size());
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return is_token(text) ? text : std::string();
}

int RestoreToken::write(const std::string& token) const
{
    if (path_.empty() || !is_token(token)) {
        const bool gone = path_.empty() || unlink(path_.c_str()) == 0 || errno == ENOENT;
        return gone ? 0 : errno;
    }
    make_folders(path_);
    const common::TrustedPath file(path_);
    return file.error() ? file.error() : put_in_place(file, token);
}

} // namespace zu3host
