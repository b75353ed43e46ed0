#include "capture/portal/stream_memory.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zu3host {

namespace {

// More than any screen; keeps sums of offsets and sizes within their types.
constexpr uint64_t greatest_size = uint64_t{1} << 32;

bool reaches(int fd, uint64_t end)
{
    struct stat found {};
    return fstat(fd, &found) == 0 && S_ISREG(found.st_mode) && found.st_size >= 0 &&
           static_cast<uint64_t>(found.st_size) >= end;
}

bool cannot_shrink(int fd)
{
    const int seals = fcntl(fd, F_GET_SEALS);
    return seals >= 0 && (seals & F_SEAL_SHRINK);
}

} // namespace

StreamMemory::StreamMemory(int fd, uint64_t offset, uint64_t size) : offset_(offset), size_(size)
{
    if (size == 0 || size > greatest_size || offset > greatest_size || !reaches(fd, offset + size))
        return;
    if (cannot_shrink(fd)) {
        map(fd);
    } else {
        file_ = common::Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0));
        usable_ = static_cast<bool>(file_);
    }
}

StreamMemory::StreamMemory(const void* mapped, uint64_t size)
    : offset_(0), size_(size), usable_(mapped && size > 0 && size <= greatest_size),
      start_(static_cast<const uint8_t*>(mapped))
{
}

StreamMemory::~StreamMemory()
{
    if (mapping_)
        munmap(mapping_, mapped_);
}

void StreamMemory::map(int fd)
{
    const uint64_t behind_page = offset_ % static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const size_t length = static_cast<size_t>(size_ + behind_page);
    void* const found =
        mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset_ - behind_page));
    if (found == MAP_FAILED)
        return;
    mapping_ = found;
    mapped_ = length;
    start_ = static_cast<const uint8_t*>(found) + behind_page;
    usable_ = true;
}

const uint8_t* StreamMemory::bytes(uint64_t offset, uint64_t count)
{
    if (!usable_ || offset > size_ || count > size_ - offset)
        return nullptr;
    if (start_)
        return start_ + offset;
    copy_.resize(std::max<size_t>(copy_.size(), count));
    for (uint64_t done = 0; done < count;) {
        const ssize_t got = pread(file_.get(), copy_.data() + done, count - done,
                                  static_cast<off_t>(offset_ + offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return nullptr;
        done += static_cast<uint64_t>(got);
    }
    return copy_.data();
}

} // namespace zu3host
