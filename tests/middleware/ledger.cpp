#include <algorithm>
#include <sys/mman.h>

#include "middleware/allocation_failures.h"
#include "middleware/state.h"

namespace middleware {

namespace {

const std::map<Kind, std::pair<const char*, u32>> kinds = {{Kind::capture, {"capture", 0x11}},
                                                           {Kind::encoder, {"encoder", 0x21}},
                                                           {Kind::audio, {"audio capture", 0x31}},
                                                           {Kind::multiplexer, {"multiplexer", 0x41}}};

bool is_part_of(const std::vector<std::string>& parts, const std::string& sentence)
{
    return std::any_of(parts.begin(), parts.end(),
                       [&](const std::string& part) { return sentence.find(part) != std::string::npos; });
}

std::string name_of(Kind kind, u32 handle)
{
    return text(kinds.at(kind).first, " ", hex(handle));
}

/** An audio source ends with its multiplexer, for the library pushes nothing to it; a video source does not.
 */
bool is_video(const ZU_TSMUX_MediaSourceParams_t& source)
{
    return source.u8StreamId == 0xE0;
}

void note_attachments(const Device& device, const std::string& name)
{
    if (device.excused)
        return;
    if (device.registration != 0)
        problem(name + " is closed while its callback is registered");
    if (device.display != 0)
        problem(name + " is closed while it is connected to a display");
    for (const auto& [id, source] : device.sources) {
        if (is_video(source))
            problem(text(name, " is closed while media source ", hex(id), " is attached"));
    }
    for (const auto& [buffer, count] : device.pictures)
        if (device.pictures_on_their_way == 0)
            problem(text(name, " is closed and picture ", buffer, " was never given back"));
}

} // namespace

State& state()
{
    static State* const the_state =
        new State; // never destroyed: static objects of others may call in at exit
    return *the_state;
}

Middleware& Middleware::instance()
{
    static Middleware* const the_double = new Middleware;
    return *the_double;
}

void problem(std::string sentence)
{
    state().problems.push_back(std::move(sentence));
}

Device* live_device(u32 handle, Kind kind, const std::string& function)
{
    const auto found = state().devices.find(handle);
    if (found != state().devices.end() && found->second.kind == kind && found->second.alive)
        return &found->second;
    if (late_callback_depth == 0)
        problem(text(function, " is called on ",
                     found == state().devices.end() ? "unknown handle " : "dead or wrong handle ",
                     hex(handle)));
    return nullptr;
}

u32 add_device(Kind kind)
{
    State& s = state();
    u32& next = s.next_handle.try_emplace(kind, kinds.at(kind).second).first->second;
    // Fifteen of a kind look alike in their last digits; the next fifteen are told apart from other kinds
    // higher up.
    const u32 handle = next++;
    if ((next & 0xF) == 0)
        next += 0x100 - 0xF;
    s.devices[handle].kind = kind;
    s.last_of_kind[kind] = handle;
    return handle;
}

u32 close_device(Context&, u32 handle, Kind kind, const std::string& function)
{
    Device* const device = live_device(handle, kind, function);
    if (!device)
        return ZU_INVALID_ARGUMENT;
    note_attachments(*device, name_of(kind, handle));
    device->alive = false;
    device->sources.clear();
    device->pictures.clear();
    device->lent.clear(); // the memory goes: a late access is one to freed memory
    return ZU_OK;
}

u64 new_registration()
{
    return 0x1'0000'00C1 + state().next_registration++; // beyond 32 bits, so that a cut id is seen
}

u32 remove_registration(Context& context, u32 handle, Kind kind, u64 id, const std::string& function)
{
    Device* const device = live_device(handle, kind, function);
    if (!device)
        return ZU_INVALID_ARGUMENT;
    if (context.refused) {
        device->excused = true;
        state().excused_registrations.insert(device->registration);
        return ZU_OK;
    }
    // A module is stopped at its own failed start and again when its slot closes: removing twice is no fault.
    if (id != 0 && device->registration != 0 && id != device->registration) {
        if (!state().excused_registrations.contains(id))
            problem(text(function, " names registration ", hex(id), ", which ", name_of(kind, handle),
                         " does not have"));
        return ZU_INVALID_ARGUMENT;
    }
    device->registration = 0;
    return ZU_OK;
}

u32 initialise(const std::string& module, Context&)
{
    if (!state().initialised.insert(module).second)
        problem(module + " is initialised twice");
    return ZU_OK;
}

u32 deinitialise(const std::string& module, Context&)
{
    if (state().initialised.erase(module) == 0)
        problem(module + " is de-initialised without an initialisation");
    for (const auto& [handle, device] : state().devices) {
        const std::string kind = device.kind == Kind::encoder ? "ZU_VENC"
                                 : device.kind == Kind::audio ? "ZU_ACAP"
                                                              : "ZU_TSMUX";
        if (device.alive && device.kind != Kind::capture && kind == module)
            problem(text(module, " is de-initialised while ", name_of(device.kind, handle), " is open"));
    }
    return ZU_OK;
}

std::vector<std::string> leftovers()
{
    State& s = state();
    std::vector<std::string> left;
    for (const auto& [handle, device] : s.devices) {
        if (device.alive)
            left.push_back(name_of(device.kind, handle) + " is left open");
    }
    for (const auto& [id, task] : s.tasks)
        left.push_back(text("task ", task.name, " is left"));
    for (const auto& [id, mutex] : s.mutexes)
        left.push_back(text("mutex ", mutex.name, mutex.held ? " is left, held" : " is left"));
    for (const auto& [handle, file] : s.open_files)
        left.push_back(text("file ", file.name, " is left open"));
    for (const auto& [physical, block] : s.blocks)
        left.push_back(text("IOMMU block ", hex(physical), " is left"));
    for (const s32 fd : s.descriptors)
        left.push_back(text("descriptor ", fd, " is left"));
    for (const std::string& module : s.initialised)
        left.push_back(module + " is left initialised");
    if (const int objects = renderer_objects_left())
        left.push_back(text("reference-counted objects are left: ", objects));
    if (const size_t blocks = library_allocations_left())
        left.push_back(text("heap blocks of the library are left: ", blocks));
    return left;
}

std::vector<std::string> Middleware::ledger_problems() const
{
    const Lock lock(state().mutex);
    std::vector<std::string> all = state().problems;
    for (std::string& sentence : leftovers())
        all.push_back(std::move(sentence));
    std::vector<std::string> unexpected;
    for (const std::string& sentence : all) {
        if (!is_part_of(state().tolerated, sentence))
            unexpected.push_back(sentence);
    }
    return unexpected;
}

void Middleware::tolerate_problem(const std::string& part)
{
    const Lock lock(state().mutex);
    state().tolerated.push_back(part);
}

void Middleware::reset()
{
    State& s = state();
    Lock lock(s.mutex);
    end_all_tasks(lock);
    for (const LowMapping& mapping : s.low_memory)
        munmap(mapping.memory, mapping.size);
    const size_t forgotten = s.calls_forgotten + s.calls.size();
    lock.unlock();
    // A mutex and a condition variable do not move; everything else starts anew.
    s.~State();
    new (&s) State;
    s.calls_forgotten = forgotten;
    s.now_ns = 1'000'000'000'000;
    settings = Settings();
    forget_library_allocations();
}

} // namespace middleware
