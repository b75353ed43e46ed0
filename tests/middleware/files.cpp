#include "middleware/contract_call.h"

using namespace middleware;

namespace {

/** with the top bit, which the library cuts off in its copies of a handle */
constexpr u32 first_file = 0x800000F1;

OpenFile* live_file(u32 handle, const char* function)
{
    const auto found = state().open_files.find(handle);
    if (found != state().open_files.end())
        return &found->second;
    problem(text(function, " is called on unknown or closed file ", hex(handle)));
    return nullptr;
}

/** A call that moves `count` items of `size` bytes; `move` gets the file that is open. */
template <class Move>
s32 move_call(const char* function, u32 size, u32 count, u32 handle, Move move)
{
    return call(function, text(size, ", ", count, ", ", hex(handle)), [&](Context&) {
        OpenFile* const open_file = live_file(handle, function);
        return open_file ? move(*open_file, state().files[open_file->name]) : s32{-1};
    });
}

} // namespace

extern "C" {

u32 ZU_FS_Fopen(const char* name, const char* mode)
{
    return call(__func__, text(name, ", ", mode), [&](Context& context) {
        State& s = state();
        const bool writable = std::string_view(mode) == "wb";
        if (name[0] == '\0' || (!writable && !s.files.contains(name)))
            return u32{0};
        if (writable)
            s.files[name] = {};
        const u32 handle = first_file + s.next_file++;
        s.open_files[handle] = {name, writable};
        context.note = "h=" + hex(handle);
        return handle;
    });
}

u32 ZU_FS_Fclose(u32 handle)
{
    const char* const function = __func__;
    return ending_call(function, hex(handle), [&](Context&) {
        const bool good = live_file(handle, function);
        state().open_files.erase(handle);
        return good ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

s32 ZU_FS_Fread(void* destination, u32 size, u32 count, u32 handle)
{
    return move_call(__func__, size, count, handle, [&](OpenFile& open_file, const Bytes& bytes) {
        const size_t left = bytes.size() - std::min(open_file.position, bytes.size());
        const size_t read = std::min(size_t{size} * count, left);
        std::copy_n(bytes.end() - static_cast<std::ptrdiff_t>(left), read,
                    static_cast<u8*>(destination));
        open_file.position += read;
        return static_cast<s32>(read);
    });
}

s32 ZU_FS_Fwrite(const void* source, u32 size, u32 count, u32 handle)
{
    return move_call(__func__, size, count, handle, [&](const OpenFile& open_file, Bytes& bytes) {
        if (!open_file.writable)
            return s32{-1};
        const u8* const written = static_cast<const u8*>(source);
        bytes.insert(bytes.end(), written, written + size_t{size} * count);
        return static_cast<s32>(count);
    });
}

u32 ZU_FS_Fseek(u32 handle, s64 offset, u32 whence)
{
    const char* const function = __func__;
    return call(function, text(hex(handle), ", ", offset, ", ", whence), [&](Context&) {
        OpenFile* const open_file = live_file(handle, function);
        if (!open_file || offset < 0 || whence != 0)
            return ZU_INVALID_ARGUMENT;
        open_file->position = static_cast<size_t>(offset);
        return ZU_OK;
    });
}

u32 ZU_FS_Sync(void)
{
    return call(__func__);
}
}
