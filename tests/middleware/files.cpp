#include <algorithm>

#include "middleware/state.h"

using namespace middleware;

namespace middleware {

void Middleware::add_file(const std::string& name, Bytes bytes)
{
    const Lock lock(state().mutex);
    state().files[name].bytes = std::move(bytes);
}

File Middleware::file(const std::string& name) const
{
    const Lock lock(state().mutex);
    const auto found = state().files.find(name);
    return found == state().files.end() ? File() : found->second;
}

} // namespace middleware

namespace {

constexpr u32 first_file =
    0x800000F1; // with the top bit, which the library cuts off where it copies a handle

OpenFile* live_file(u32 handle, const char* function)
{
    const auto found = state().open_files.find(handle);
    if (found != state().open_files.end())
        return &found->second;
    problem(text(function, " is called on unknown or closed file ", hex(handle)));
    return nullptr;
}

u32 open(Context& context, const char* name, const std::string& mode)
{
    State& s = state();
    const bool writable = mode == "wb";
    if (name[0] == '\0' || (!writable && !s.files.contains(name)))
        return 0;
    File& file = s.files[name];
    file.opened++;
    if (writable) {
        file.bytes.clear();
        file.writes.clear();
    }
    const u32 handle = first_file + s.next_file++;
    s.open_files[handle] = {name, writable};
    context.note = "h=" + hex(handle);
    return handle;
}

s32 read(u32 handle, void* destination, u64 size)
{
    OpenFile* const open_file = live_file(handle, "ZU_FS_Fread");
    if (!open_file)
        return -1;
    const Bytes& bytes = state().files[open_file->name].bytes;
    const size_t position = std::min(open_file->position, bytes.size());
    const size_t count = std::min<u64>(size, bytes.size() - position);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(position), count, static_cast<u8*>(destination));
    open_file->position = position + count;
    return static_cast<s32>(count);
}

s32 write(u32 handle, const void* source, u32 size, u32 count)
{
    OpenFile* const open_file = live_file(handle, "ZU_FS_Fwrite");
    if (!open_file || !open_file->writable)
        return -1;
    File& file = state().files[open_file->name];
    const u8* const bytes = static_cast<const u8*>(source);
    file.bytes.insert(file.bytes.end(), bytes, bytes + size_t{size} * count);
    file.writes.emplace_back(size, count);
    return static_cast<s32>(count);
}

} // namespace

extern "C" {

u32 ZU_FS_Fopen(const char* name, const char* mode)
{
    return static_cast<u32>(perform(false, "ZU_FS_Fopen", "", text(name, ", ", mode),
                                    [&](Context& context) { return s64{open(context, name, mode)}; }));
}

u32 ZU_FS_Fclose(u32 handle)
{
    return ending_call("ZU_FS_Fclose", hex(handle), [&](Context&) {
        const bool good = live_file(handle, "ZU_FS_Fclose");
        state().open_files.erase(handle);
        return good ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

s32 ZU_FS_Fread(void* destination, u32 size, u32 count, u32 handle)
{
    return static_cast<s32>(perform(false, "ZU_FS_Fread", "", text(size, ", ", count, ", ", hex(handle)),
                                    [&](Context&) { return read(handle, destination, u64{size} * count); }));
}

s32 ZU_FS_Fwrite(const void* source, u32 size, u32 count, u32 handle)
{
    return static_cast<s32>(perform(false, "ZU_FS_Fwrite", "", text(size, ", ", count, ", ", hex(handle)),
                                    [&](Context&) { return write(handle, source, size, count); }));
}

u32 ZU_FS_Fseek(u32 handle, s64 offset, u32 whence)
{
    return call("ZU_FS_Fseek", text(hex(handle), ", ", offset, ", ", whence), [&](Context&) {
        OpenFile* const open_file = live_file(handle, "ZU_FS_Fseek");
        if (!open_file || offset < 0 || whence != 0)
            return ZU_INVALID_ARGUMENT;
        open_file->position = static_cast<size_t>(offset);
        return ZU_OK;
    });
}

u32 ZU_FS_Sync(void)
{
    return call("ZU_FS_Sync", "", [](Context&) { return ZU_OK; });
}
}
