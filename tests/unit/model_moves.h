/** The state machine: how each call moves the model, and when it may be made. */
#pragma once

#include "state_model.h"

/** Each moves the model as its call moves the library, and returns whether the call succeeds. */
namespace moves {

bool init(StateModel& m);
bool deinit(StateModel& m, const Choice&);
bool open(StateModel& m, const Choice& c);
bool set_video(StateModel& m, const Choice& c);
bool set_audio(StateModel& m, const Choice& c);
bool set_mux(StateModel& m, const Choice& c);
bool start(StateModel& m, const Choice& c);
bool stop(StateModel& m, const Choice& c);
bool close(StateModel& m, const Choice& c);
bool one_call(StateModel& m, const Choice& c);
bool encode_open(StateModel& m, const Choice& c);
bool stills_open(StateModel& m, const Choice& c);
bool sound_open(StateModel& m, const Choice&);

/** Starts those modules of slot 0 that are open. */
template <u32... modules> bool start_modules(StateModel& m, const Choice&)
{
    m.slots[0].start({modules...});
    return true;
}

template <u32... modules> bool stop_modules(StateModel& m, const Choice&)
{
    ((m.slots[0].running[modules] = false), ...);
    return true;
}

template <u32... modules> bool close_modules(StateModel& m, const Choice&)
{
    for (const u32 module : {modules...})
        if (m.slots[0].open[module])
            m.close_module(m.slots[0], module);
    return true;
}

/** Succeeds, and moves nothing. */
constexpr auto no_move = [](StateModel&, const Choice&) { return true; };

} // namespace moves

/** Which calls the sequences make in a state. */
namespace allowed {

bool slot_is_idle(const StateModel& m, const Choice& c);
bool may_init(const StateModel& m, const Choice&);
bool may_set_video(const StateModel& m, const Choice& c);

template <u32... modules> bool slot_has_not(const StateModel& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || !(m.slots[c.slot].open[modules] || ...);
}

} // namespace allowed
