#include "model_moves.h"

#include "library_test.h"

namespace moves {

bool init(StateModel& m)
{
    m.sound_initialised = true;
    if (!m.initialised) {
        for (ModelSlot& slot : m.slots)
            m.close_slot(slot);
        m.block = false;
        m.buffers = 0;
        m.capable = true;
    }
    return m.initialised = true;
}

bool deinit(StateModel& m, const Choice&)
{
    m.sound_initialised = false;
    if (!m.initialised)
        return false;
    for (ModelSlot& slot : m.slots)
        m.close_slot(slot);
    m.initialised = false;
    return true;
}

bool open(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    if (!slot || c.flaw == 1) // no name
        return false;
    m.close_slot(*slot);
    return slot->file = c.flaw == 0;
}

bool set_video(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    if (!slot || c.flaw == 1)
        return false;
    if (c.flaw == 4 && m.capable) { // the encoder was opened before the source failed
        // whichever slot's encoder is closed
        m.descriptor = false;
        m.inject = m.inject && c.slot != 0 && m.slots[0].open[VENC];
    }
    if (c.flaw != 0 || !m.capable) {
        m.close_slot(*slot);
        return false;
    }
    slot->open[VENC] = slot->open[c.variant % 2 ? VREADER : VCAP] = slot->video = true;
    m.inject = m.inject && c.slot != 0 && m.slots[0].open[VENC];
    return true;
}

bool set_audio(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    if (!slot || c.flaw == 1)
        return false;
    // 1 = a file, 3 = MP3, which is not captured
    const int kind = c.variant % 4;
    if (c.flaw != 0 || (kind % 2 == 0 && slot->open[ACAP])) {
        m.close_slot(*slot);
        return false;
    }
    if (kind != 3)
        slot->open[kind == 1 ? AREADER : ACAP] = true;
    return slot->audio = true;
}

bool set_mux(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    return slot && (slot->video || slot->audio) && (slot->open[TSMUX] = true);
}

bool start(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.usable(c);
    if (!slot || !(slot->video || slot->audio) || !slot->open[TSMUX] || !slot->file)
        return false;
    slot->start({VREADER, AREADER, VCAP, ACAP, VENC, TSMUX});
    return true;
}

bool stop(StateModel& m, const Choice& c)
{
    ModelSlot* const slot = m.usable(c);
    if (!slot)
        return false;
    const bool writes = slot->running[TSMUX];
    slot->running = {};
    slot->running[TSMUX] = writes;
    return true;
}

bool close(StateModel& m, const Choice& c)
{
    if (!m.usable(c))
        return false;
    m.close_slot(m.slots[c.slot]);
    return true;
}

bool one_call(StateModel& m, const Choice& c)
{
    init(m);
    ModelSlot& slot = m.slots[0];
    if (slot.busy() || c.flaw != 0 || !m.capable)
        return false;
    m.inject = false;
    slot.file = slot.video = slot.audio = true;
    for (const u32 module : {VCAP, ACAP, VENC, TSMUX})
        slot.open[module] = slot.running[module] = true;
    return true;
}

bool encode_open(StateModel& m, const Choice& c)
{
    ModelSlot& slot = m.slots[0];
    if (slot.open[VCAP])
        return false;
    m.close_module(slot, VCAP);
    m.capable = true;
    if (slot.open[VENC]) {
        slot.open[VCAP] = true;
        return false;
    }
    if (c.flaw != 0) // more than the encoder can
        return false;
    m.close_module(slot, VENC);
    slot.open[VCAP] = slot.open[VENC] = true;
    m.inject = c.variant % 2;
    return true;
}

bool stills_open(StateModel& m, const Choice& c)
{
    if (c.flaw == 1 || m.slots[0].open[VCAP])
        return false;
    m.slots[0].open[VCAP] = true;
    m.slots[0].running[VCAP] = false;
    if (c.flaw == 2) // no such format
        return false;
    m.block = c.flaw == 0;
    if (m.block)
        m.buffers = 1u + c.variant % 3;
    // also without buffers
    return true;
}

bool sound_open(StateModel& m, const Choice&)
{
    if (m.slots[0].open[ACAP])
        return false;
    m.sound_initialised = true;
    m.slots[0].running[ACAP] = false;
    return m.slots[0].open[ACAP] = true;
}

} // namespace moves

namespace allowed {

bool slot_is_idle(const StateModel& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || m.slots[c.slot].busy() || m.slots[c.slot].idle();
}

bool may_init(const StateModel& m, const Choice&)
{
    const bool all_is_closed = m.slots[0].idle() && m.slots[1].idle() && !m.block;
    return m.initialised || (all_is_closed && !m.sound_initialised);
}

bool may_set_video(const StateModel& m, const Choice& c)
{
    const bool other_captures = c.slot < SCREENRECORD_SLOT_COUNT && m.slots[1 - c.slot].open[VCAP];
    return slot_has_not<VENC, VCAP, VREADER>(m, c) && !other_captures;
}

} // namespace allowed
