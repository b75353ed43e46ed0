#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "table/recording_table.h"

/** One recording slot, as far as it decides what the next call answers. */
struct ModelSlot {
    /** the output file is open */
    bool file = false;
    bool video = false, audio = false;
    std::array<bool, E_SCREENRECORD_MODULE_MAX> open = {}, running = {};

    bool busy() const { return std::ranges::count(running, true) != 0; }
    /** Nothing is open: an open now replaces nothing. */
    bool idle() const { return *this == ModelSlot(); }
    /** Starts those of the modules that are open. */
    void start(std::initializer_list<u32> modules)
    {
        for (const u32 module : modules)
            running[module] = running[module] || open[module];
    }
    bool operator==(const ModelSlot&) const = default;
};

/** The arguments that a call varies. */
struct Choice {
    u32 slot = 0;
    /** which of the good arguments */
    u8 variant = 0;
    /** 0 = good arguments, otherwise which bad one */
    u8 flaw = 0;
};

/** The library as a state machine, if the middleware refuses nothing; operations move it. */
class StateModel {
public:
    bool initialised = false;
    /** the audio module; PCM capture needs no more */
    bool sound_initialised = false;
    /** the encoder's capabilities are known */
    bool capable = false;
    ModelSlot slots[SCREENRECORD_SLOT_COUNT];
    /** still-frame buffers are allocated */
    bool block = false;
    /** how many; kept when they are freed */
    u32 buffers = 0;
    bool inject = false;
    /** of the inject buffer, for the watermark; the encoder's close gives it back */
    bool descriptor = false;
    /** not in the library's table; false when in doubt */
    bool watermark = false;

    /** From the library's table, for comparison and after a fault. */
    static StateModel of_library();

    bool operator==(const StateModel&) const = default;
    std::string text() const;
    int open_modules() const;
    /** The slot that a call names, NULL if it names none or nothing was initialised. */
    ModelSlot* usable(const Choice& choice)
    {
        return choice.slot < SCREENRECORD_SLOT_COUNT && initialised ? &slots[choice.slot] : nullptr;
    }
    /** The same, if it does not run either. */
    ModelSlot* configurable(const Choice& choice)
    {
        ModelSlot* const slot = usable(choice);
        return slot && !slot->busy() ? slot : nullptr;
    }
    void close_module(ModelSlot& slot, u32 module);
    void close_slot(ModelSlot& slot);
};

/**
 * A call, the model's answer, and when it may be made. Calls that would open a device over an open
 * one are not made: clients must close first. Nor do two slots capture at a time, since the
 * middleware has one capture connection.
 */
struct Operation {
    const char* name;
    /** Moves the model as the call moves the library, and says whether the call succeeds. */
    bool (*answer)(StateModel&, const Choice&);
    bool (*call)(Choice&);
    /** kinds of bad arguments */
    u32 flaws = 0;
    bool (*may)(const StateModel&, const Choice&) = [](const StateModel&, const Choice&) {
        return true;
    };
};

/** All exported functions; inputs of the corpus name them by their place. */
extern const std::vector<Operation> OPERATIONS;
