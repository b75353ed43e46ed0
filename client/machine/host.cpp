#include "machine/host.h"

#include <dlfcn.h>

namespace client {

// Looked up by name: the program also runs on a platform that counts nothing.
std::optional<zu3_host_statistics_t> read_statistics()
{
    using Read = uint32_t (*)(zu3_host_statistics_t*, uint32_t);
    static const auto read = reinterpret_cast<Read>(dlsym(RTLD_DEFAULT, "zu3_host_statistics"));
    if (!read)
        return std::nullopt;
    zu3_host_statistics_t statistics = {};
    read(&statistics, sizeof statistics);
    return statistics;
}

int frame_event()
{
    using Event = int (*)();
    static const auto event = reinterpret_cast<Event>(dlsym(RTLD_DEFAULT, "zu3_host_frame_event"));
    return event ? event() : -1;
}

void give_up_writes()
{
    using GiveUp = void (*)();
    static const auto give_up =
        reinterpret_cast<GiveUp>(dlsym(RTLD_DEFAULT, "zu3_host_give_up_writes"));
    if (give_up)
        give_up();
}

bool want_exact_size(uint32_t width, uint32_t height)
{
    using Want = void (*)(uint32_t, uint32_t);
    static const auto want = reinterpret_cast<Want>(dlsym(RTLD_DEFAULT, "zu3_host_exact_size"));
    if (want)
        want(width, height);
    return want;
}

const char* platform_sentence()
{
    using Name = const char* (*)();
    static const auto name = reinterpret_cast<Name>(dlsym(RTLD_DEFAULT, "zu3_host_platform"));
    return name ? name() : nullptr;
}

} // namespace client
