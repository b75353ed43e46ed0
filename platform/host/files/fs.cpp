#include "base/handle_table.h"
#include "files/open_file.h"
#include "memory/memory_register.h"

#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <string_view>
#include <zu3/fs.h>
#include <zu3_host/slow_disk.h>

namespace {

using zu3host::at_border;
using zu3host::handle_table;
using zu3host::OpenFile;

// Handles count up from 1 and stay far below bit 31, which callers of a file clear as a mark.
constexpr auto files = handle_table<OpenFile, 1>;

/** The flags of open(2) for a stdio mode; nullopt for an invalid mode. */
std::optional<int> open_flags_of_mode(const char* mode)
{
    std::string_view text = mode ? mode : "";
    if (text.empty())
        return std::nullopt;
    const char first = text[0];
    text.remove_prefix(1);
    if (text.find_first_not_of("b+") != std::string_view::npos || text.size() > 2)
        return std::nullopt;
    const bool both = text.find('+') != std::string_view::npos;
    switch (first) {
    case 'r':
        return both ? O_RDWR : O_RDONLY;
    case 'w':
        return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a':
        return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
        return std::nullopt;
    }
}

constexpr u64 greatest_result = std::numeric_limits<s32>::max();

} // namespace

HOST_EXPORT u32 ZU_FS_Fopen(const char* pName, const char* pMode)
{
    const auto flags = open_flags_of_mode(pMode);
    if (!pName || !flags) {
        HOST_LOGE("A file cannot be opened without a name and a mode such as \"rb\" or \"wb\".");
        return 0;
    }
    return at_border(__func__, u32{0}, [&] {
        auto file = OpenFile::open(pName, *flags);
        return file ? files().add(std::move(file)) : 0;
    });
}

HOST_EXPORT u32 ZU_FS_Fclose(u32 u32File)
{
    return at_border(__func__, [=]() -> u32 {
        const auto file = files().remove(u32File);
        if (!file)
            return ZU_INVALID_ARGUMENT;
        return file->close() ? ZU_OK : ZU_FAILURE;
    });
}

HOST_EXPORT s32 ZU_FS_Fread(void* pDst, u32 u32Size, u32 u32Count, u32 u32File)
{
    const u64 size = u64{u32Size} * u32Count;
    if (!pDst || size > greatest_result)
        return -1;
    return at_border(__func__, s32{-1}, [=] {
        const auto file = files().find(u32File);
        const auto memory = zu3host::hold_memory(pDst);
        return file ? static_cast<s32>(file->read(pDst, size)) : -1;
    });
}

HOST_EXPORT s32 ZU_FS_Fwrite(const void* pSrc, u32 u32Size, u32 u32Count, u32 u32File)
{
    if (!pSrc || u32Count > greatest_result ||
        u64{u32Size} * u32Count > std::numeric_limits<size_t>::max() / 2)
        return -1;
    return at_border(__func__, s32{-1}, [=] {
        const auto file = files().find(u32File);
        if (!file)
            return -1;
        if (u32Size == 0 || u32Count == 0)
            return 0;
        const auto memory = zu3host::hold_memory(pSrc);
        const u64 whole = file->write_items(pSrc, u32Size, u32Count);
        return whole == 0 ? -1 : static_cast<s32>(whole);
    });
}

HOST_EXPORT u32 ZU_FS_Fseek(u32 u32File, s64 s64Offset, u32 u32Whence)
{
    if (u32Whence > SEEK_END)
        return ZU_INVALID_ARGUMENT;
    return zu3host::with_object(__func__, files, u32File, [=](OpenFile& file) {
        return file.seek(s64Offset, static_cast<int>(u32Whence)) ? ZU_OK : ZU_FAILURE;
    });
}

// Closing has started the way to the medium of each written file, and nothing of other programs'
// data is pushed.
HOST_EXPORT u32 ZU_FS_Sync(void)
{
    return ZU_OK;
}

HOST_EXPORT void zu3_host_give_up_writes(void)
{
    zu3host::give_up_writes();
}
