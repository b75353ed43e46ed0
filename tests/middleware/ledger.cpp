#include <sys/mman.h>

#include "middleware/allocation_failures.h"
#include "middleware/contract_call.h"

namespace middleware {

namespace {

std::vector<std::string> leftovers()
{
    const State& s = state();
    std::vector<std::string> left;
    const auto add = [&](const auto&... words) { left.push_back(text(words...)); };
    for (const auto& [handle, device] : s.devices)
        if (device.alive)
            add(name_of(device.kind, handle), " is left open");
    for (const auto& [id, task] : s.tasks)
        add("task ", task.name, " is left");
    for (const auto& [id, mutex] : s.mutexes)
        add("mutex ", mutex.name, mutex.held() ? " is left, held" : " is left");
    for (const auto& [handle, file] : s.open_files)
        add("file ", file.name, " is left open");
    for (const auto& [physical, size] : s.blocks)
        add("IOMMU block ", hex(physical), " is left");
    for (const s32 fd : s.descriptors)
        add("descriptor ", fd, " is left");
    for (const std::string& module : s.initialised)
        add(module, " is left initialised");
    if (const int objects = renderer_objects_left())
        add("reference-counted objects are left: ", objects);
    if (const size_t count = library_allocations_left())
        add("heap blocks of the library are left: ", count);
    return left;
}

} // namespace

State& state()
{
    static State* const the_state = new State; // never destroyed: static objects call in at exit
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

const KindFacts& facts(Kind kind)
{
    static const std::map<Kind, KindFacts> all = {
        {Kind::capture, {"capture", 0x11, "ZU_CAP"}},
        {Kind::encoder, {"encoder", 0x21, "ZU_VENC"}},
        {Kind::audio, {"audio capture", 0x31, "ZU_ACAP"}},
        {Kind::multiplexer, {"multiplexer", 0x41, "ZU_TSMUX"}}};
    return all.at(kind);
}

std::string name_of(Kind kind, u32 handle)
{
    return text(facts(kind).name, " ", hex(handle));
}

Device* live_device(u32 handle, Kind kind, const std::string& function)
{
    const auto found = state().devices.find(handle);
    const bool known = found != state().devices.end();
    if (known && found->second.kind == kind && found->second.alive)
        return &found->second;
    if (late_callback_depth == 0)
        problem(text(function, " is called on ", known ? "dead or wrong" : "unknown", " handle ",
                     hex(handle)));
    return nullptr;
}

std::vector<std::string> Middleware::ledger_problems() const
{
    const Lock lock(state().mutex);
    std::vector<std::string> all = leftovers();
    all.insert(all.begin(), state().problems.begin(), state().problems.end());
    std::erase_if(all, [](const std::string& sentence) {
        return std::ranges::any_of(state().tolerated, [&](const std::string& part) {
            return sentence.find(part) != std::string::npos;
        });
    });
    return all;
}

void Middleware::reset()
{
    State& s = state();
    Lock lock(s.mutex);
    end_all_tasks(lock);
    for (const std::span<u8> memory : s.low_memory)
        munmap(memory.data(), memory.size());
    const size_t forgotten = s.calls_forgotten + s.calls.size();
    lock.unlock();
    // A mutex and a condition variable do not move; the rest starts anew.
    s.~State();
    new (&s) State;
    s.calls_forgotten = forgotten;
    s.now_ns = 1'000'000'000'000;
    settings = Settings();
    forget_library_allocations();
}

} // namespace middleware
