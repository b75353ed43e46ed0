#include "memory/low_mapping.h"

#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MAP_FIXED_NOREPLACE
#define MAP_FIXED_NOREPLACE 0x100000
#endif

namespace zu3host {

namespace {

// MAP_32BIT would give a range of one gigabyte on x86-64 and exists nowhere else, so places are
// tried in turn. The kernel refuses those that are taken: by earlier blocks, a program that is
// linked low, or a sanitizer's shadow.
constexpr uint64_t first_place = 0x10000000;
constexpr uint64_t end_of_places = 0x100000000;
constexpr uint64_t place_step = 0x100000;

uint8_t* reserve_at(uint64_t place, size_t bytes)
{
    void* const wanted = reinterpret_cast<void*>(static_cast<uintptr_t>(place));
    void* const got =
        mmap(wanted, bytes, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == wanted)
        return static_cast<uint8_t*>(got);
    // A kernel that does not know the flag takes the address for a hint.
    if (got != MAP_FAILED)
        munmap(got, bytes);
    return nullptr;
}

uint8_t* reserve_below_4gib(size_t bytes)
{
    for (uint64_t place = first_place; place + bytes <= end_of_places; place += place_step) {
        if (uint8_t* const start = reserve_at(place, bytes))
            return start;
    }
    errno = ENOMEM;
    return nullptr;
}

} // namespace

LowMapping LowMapping::of(int fd, size_t size)
{
    const size_t reserved = size + static_cast<size_t>(sysconf(_SC_PAGESIZE));
    LowMapping mapping(reserve_below_4gib(reserved), reserved);
    if (!mapping)
        return {};
    if (mmap(mapping.start_, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) ==
        MAP_FAILED)
        return {};
    return mapping;
}

LowMapping::~LowMapping()
{
    if (start_)
        munmap(start_, reserved_);
}

} // namespace zu3host
