#include "state_model.h"

#include <algorithm>
#include <string>

#include <capenc/capture_encode.h>
#include <capture/watermark.h>

#include "middleware/state.h"

namespace {

constexpr u32 VREADER = E_SCREENRECORD_MODULE_VIDEO_SRC_READER,
              AREADER = E_SCREENRECORD_MODULE_AUDIO_SRC_READER, VCAP = E_SCREENRECORD_MODULE_VCAP,
              ACAP = E_SCREENRECORD_MODULE_ACAP, VENC = E_SCREENRECORD_MODULE_VENC,
              TSMUX = E_SCREENRECORD_MODULE_TSMUX;

} // namespace

bool ModelSlot::busy() const
{
    return std::find(running.begin(), running.end(), true) != running.end();
}

bool ModelSlot::idle() const
{
    return *this == ModelSlot();
}

void ModelSlot::stop()
{
    const bool writes = running[TSMUX];
    running = {};
    running[TSMUX] = writes;
}

void StateModel::close_module(ModelSlot& slot, u32 module)
{
    if (module == VENC && slot.open[VENC])
        descriptor = false;
    slot.open[module] = slot.running[module] = false;
}

void StateModel::close_slot(ModelSlot& slot)
{
    close_module(slot, VENC);
    slot = ModelSlot();
}

int StateModel::open_modules() const
{
    int count = block + slots[0].file + slots[1].file;
    for (const ModelSlot& slot : slots)
        for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
            count += slot.open[module] + slot.running[module];
    return count;
}

StateModel StateModel::of_library()
{
    StateModel model;
    model.initialised = _bModuleInited == 1;
    model.sound_initialised = (_u32ModuleInitMask >> ACAP & 1) != 0;
    for (u32 index = 0; index < SCREENRECORD_SLOT_COUNT; index++) {
        const SCREENRECORD_SlotCtrl_s& from = _astSlotCtrl[index];
        ModelSlot& slot = model.slots[index];
        slot.file = from.astTaskCtrl[TSMUX].u32OutFile != 0;
        slot.video = from.stSrcInfo.bVideoSrcAssigned == 1;
        slot.audio = from.stSrcInfo.bAudioSrcAssigned == 1;
        for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++) {
            slot.open[module] = from.astTaskCtrl[module].u32Handle != 0;
            slot.running[module] = from.astTaskCtrl[module].bRunning == 1;
        }
    }
    model.capable = _stModuleCaps.stVencCaps.u32MaxWidth != 0;
    model.block = _astSlotCtrl[0].u64CapBufPhyAddr != 0;
    model.buffers = _astSlotCtrl[0].u32MaxFrameNum;
    model.inject = _bUseEntireInjectBuf == 1;
    model.descriptor = _stInjectBufFd.s32Fd >= 0;
    model.watermark = middleware::renderer_objects_left() > 0;
    return model;
}

std::string StateModel::text() const
{
    std::string result = initialised ? "initialised" : "uninitialised";
    for (const ModelSlot& slot : slots) {
        result += slot.file ? "; file" : "; no file";
        result += slot.video ? " video" : "";
        result += slot.audio ? " audio" : "";
        for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
            if (slot.open[module] || slot.running[module])
                result += " " + std::to_string(module) + (slot.running[module] ? "runs" : "");
    }
    return result + "; buffers " + std::to_string(buffers) + (block ? " allocated" : "") +
           (inject ? "; inject" : "") + (descriptor ? "; descriptor" : "") + (watermark ? "; watermark" : "");
}

bool StateModel::slot_is_usable(const Choice& choice) const
{
    return choice.slot < SCREENRECORD_SLOT_COUNT && initialised;
}

bool StateModel::slot_is_configurable(const Choice& choice) const
{
    return slot_is_usable(choice) && !slots[choice.slot].busy();
}

bool StateModel::init(const Choice&)
{
    sound_initialised = true;
    if (!initialised) {
        for (ModelSlot& slot : slots)
            close_slot(slot);
        block = false;
        buffers = 0;
        capable = true;
    }
    return initialised = true;
}

bool StateModel::deinit(const Choice&)
{
    sound_initialised = false;
    if (!initialised)
        return false;
    for (ModelSlot& slot : slots)
        close_slot(slot);
    initialised = false;
    return true;
}

bool StateModel::open(const Choice& choice)
{
    if (!slot_is_configurable(choice) || choice.flaw == 1) // no name
        return false;
    close_slot(slots[choice.slot]);
    return slots[choice.slot].file = choice.flaw == 0;
}

bool StateModel::set_video(const Choice& choice)
{
    if (!slot_is_configurable(choice) || choice.flaw == 1)
        return false;
    ModelSlot& slot = slots[choice.slot];
    if (choice.flaw == 4 && capable) { // the encoder was opened before the source failed
        descriptor = false;            // whichever slot's encoder is closed
        inject = inject && choice.slot != 0;
    }
    if (choice.flaw != 0 || !capable) {
        close_slot(slot);
        return false;
    }
    slot.open[VENC] = slot.open[choice.variant % 2 ? VREADER : VCAP] = slot.video = true;
    inject = inject && choice.slot != 0;
    return true;
}

bool StateModel::set_audio(const Choice& choice)
{
    if (!slot_is_configurable(choice) || choice.flaw == 1)
        return false;
    ModelSlot& slot = slots[choice.slot];
    const int kind = choice.variant % 4; // 1 = a file, 3 = MP3, which is not captured
    if (choice.flaw != 0 || (kind % 2 == 0 && slot.open[ACAP])) {
        close_slot(slot);
        return false;
    }
    if (kind != 3)
        slot.open[kind == 1 ? AREADER : ACAP] = true;
    return slot.audio = true;
}

bool StateModel::set_mux(const Choice& choice)
{
    if (!slot_is_configurable(choice) || !(slots[choice.slot].video || slots[choice.slot].audio))
        return false;
    return slots[choice.slot].open[TSMUX] = true;
}

bool StateModel::start(const Choice& choice)
{
    if (!slot_is_usable(choice))
        return false;
    ModelSlot& slot = slots[choice.slot];
    if (!(slot.video || slot.audio) || !slot.open[TSMUX] || !slot.file)
        return false;
    for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
        slot.running[module] = slot.running[module] || slot.open[module];
    return true;
}

bool StateModel::stop(const Choice& choice)
{
    if (!slot_is_usable(choice))
        return false;
    slots[choice.slot].stop();
    return true;
}

bool StateModel::close(const Choice& choice)
{
    if (!slot_is_usable(choice))
        return false;
    close_slot(slots[choice.slot]);
    return true;
}

bool StateModel::one_call(const Choice& choice)
{
    init(choice);
    if (slots[0].busy() || choice.flaw == 1)
        return false;
    if (choice.flaw != 0 || !capable)
        return false;
    inject = false;
    ModelSlot& slot = slots[0];
    slot.file = slot.video = slot.audio = true;
    for (const u32 module : {VCAP, ACAP, VENC, TSMUX})
        slot.open[module] = slot.running[module] = true;
    return true;
}

bool StateModel::one_call_stop(const Choice&)
{
    return close({0});
}

bool StateModel::encode_open(const Choice& choice)
{
    ModelSlot& slot = slots[0];
    if (slot.open[VCAP])
        return false;
    close_module(slot, VCAP);
    capable = true;
    if (choice.flaw == 1) // a picture that no memory holds
        return false;
    if (slot.open[VENC]) {
        slot.open[VCAP] = true;
        return false;
    }
    if (choice.flaw != 0) // more than the encoder can
        return false;
    close_module(slot, VENC);
    slot.open[VCAP] = slot.open[VENC] = true;
    inject = choice.variant % 2;
    return true;
}

bool StateModel::encode_start(const Choice&)
{
    for (const u32 module : {VCAP, VENC})
        slots[0].running[module] = slots[0].running[module] || slots[0].open[module];
    return true;
}

bool StateModel::encode_stop(const Choice&)
{
    slots[0].running[VCAP] = slots[0].running[VENC] = watermark = false;
    return true;
}

bool StateModel::encode_close(const Choice&)
{
    for (const u32 module : {VCAP, VENC})
        if (slots[0].open[module])
            close_module(slots[0], module);
    return true;
}

bool StateModel::set_bit_rate(const Choice&)
{
    return slots[0].open[VENC];
}

bool StateModel::set_watermark(const Choice&)
{
    descriptor = descriptor || !watermark;
    return watermark = inject;
}

bool StateModel::stills_open(const Choice& choice)
{
    if (choice.flaw == 1 || slots[0].open[VCAP])
        return false;
    slots[0].open[VCAP] = true;
    slots[0].running[VCAP] = false;
    if (choice.flaw == 2) // no such format
        return false;
    block = choice.flaw == 0;
    if (block)
        buffers = 1u + choice.variant % 3;
    return true; // also without buffers
}

bool StateModel::stills_describe(const Choice& choice)
{
    return block && choice.flaw == 0;
}

bool StateModel::stills_capture(const Choice& choice)
{
    return choice.flaw == 0 && block && slots[0].open[VCAP] && buffers != 0;
}

bool StateModel::stills_close(const Choice&)
{
    block = false;
    if (slots[0].open[VCAP])
        close_module(slots[0], VCAP);
    return true;
}

bool StateModel::sound_open(const Choice&)
{
    if (slots[0].open[ACAP])
        return false;
    sound_initialised = true;
    slots[0].running[ACAP] = false;
    return slots[0].open[ACAP] = true;
}

bool StateModel::sound_start(const Choice&)
{
    slots[0].running[ACAP] = slots[0].running[ACAP] || slots[0].open[ACAP];
    return true;
}

bool StateModel::sound_stop(const Choice&)
{
    slots[0].running[ACAP] = false;
    return true;
}

bool StateModel::sound_close(const Choice&)
{
    if (slots[0].open[ACAP])
        close_module(slots[0], ACAP);
    return true;
}

bool StateModel::sound_read(const Choice&)
{
    return slots[0].open[ACAP];
}
