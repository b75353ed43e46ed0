#include "movie/movie_copy.h"

#include <cerrno>
#include <fcntl.h>

#include "movie/module_loader.h"
#include "process/messages.h"

namespace client::movie {
namespace {

/** Duplicates a descriptor: the thread may outlive the caller's. */
std::shared_ptr<common::Descriptor> duplicate(int fd)
{
    auto made = std::make_shared<common::Descriptor>(fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!*made)
        throw Failure(error_text(errno));
    return made;
}

} // namespace

MovieCopy::MovieCopy(int from, int to, Container container)
{
    const MovieModule& module = movie_module();
    work_ = std::make_unique<AttendedWork>(
        [&module, container, source = duplicate(from), target = duplicate(to), shared = shared_] {
            module.copy({.from = source->get(),
                         .to = target->get(),
                         .container = container,
                         .go_on = [&shared](double part) {
                             shared->part = part;
                             return !shared->cancelled;
                         }});
            if (fsync(target->get()) != 0)
                throw Failure(error_text(errno));
        });
}

} // namespace client::movie
