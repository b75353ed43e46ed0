#pragma once

#include <array>

#include <core/recording_table.h>

/** One recording slot, as far as it decides what the next call answers. */
struct ModelSlot {
    bool file = false; /**< the output file is open */
    bool video = false, audio = false;
    std::array<bool, E_SCREENRECORD_MODULE_MAX> open = {}, running = {};

    bool busy() const;
    /** Nothing is open: what is opened now replaces nothing. */
    bool idle() const;
    void stop();
    bool operator==(const ModelSlot&) const = default;
};

/** The arguments that a call varies. */
struct Choice {
    u32 slot = 0;
    u8 variant = 0; /**< which of the good arguments */
    u8 flaw = 0;    /**< 0 = good arguments, else which bad one */
};

/**
 * The library as a state machine. Each function moves the state as the call of that name does where the
 * middleware refuses nothing, and says whether the call succeeds.
 */
class StateModel {
public:
    bool initialised = false;
    bool sound_initialised = false; /**< the audio module; PCM capture needs no more */
    bool capable = false;           /**< what the encoder can is known */
    ModelSlot slots[SCREENRECORD_SLOT_COUNT];
    bool block = false; /**< still-frame buffers are allocated */
    u32 buffers = 0;    /**< how many; kept when they are freed */
    bool inject = false;
    bool descriptor =
        false;              /**< of the inject buffer, for the watermark; the encoder's close gives it back */
    bool watermark = false; /**< not in the library's table; false when in doubt */

    /** What the library's own table says, for comparison and after a fault. */
    static StateModel of_library();

    bool init(const Choice&);
    bool deinit(const Choice&);
    bool open(const Choice&);
    bool set_video(const Choice&);
    bool set_audio(const Choice&);
    bool set_mux(const Choice&);
    bool start(const Choice&);
    bool stop(const Choice&);
    bool close(const Choice&);
    bool one_call(const Choice&);
    bool one_call_stop(const Choice&);
    bool encode_open(const Choice&);
    bool encode_start(const Choice&);
    bool encode_stop(const Choice&);
    bool encode_close(const Choice&);
    bool set_bit_rate(const Choice&);
    bool set_watermark(const Choice&);
    bool stills_open(const Choice&);
    bool stills_describe(const Choice&);
    bool stills_capture(const Choice&);
    bool stills_close(const Choice&);
    bool sound_open(const Choice&);
    bool sound_start(const Choice&);
    bool sound_stop(const Choice&);
    bool sound_close(const Choice&);
    bool sound_read(const Choice&);
    bool succeeds(const Choice&) { return true; }

    bool operator==(const StateModel&) const = default;
    std::string text() const;
    void close_slot(ModelSlot& slot);
    int open_modules() const;

private:
    bool slot_is_usable(const Choice& choice) const;
    bool slot_is_configurable(const Choice& choice) const;
    void close_module(ModelSlot& slot, u32 module);
};
