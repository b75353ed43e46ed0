#include "state_model.h"

#include "capture_encode/watermark.h"
#include "modules/inject_buffer.h"

#include "library_test.h"
#include "middleware/contract_call.h"

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
    std::string result =
        middleware::text("initialised ", initialised, ", sound ", sound_initialised, ", capable ",
                         capable, ", buffers ", buffers, ", allocated ", block, ", inject ", inject,
                         ", descriptor ", descriptor, ", watermark ", watermark);
    for (const ModelSlot& slot : slots) {
        result += middleware::text("; file ", slot.file, ", video ", slot.video, ", audio ",
                                   slot.audio, ", open");
        for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
            if (slot.open[module] || slot.running[module])
                result += middleware::text(" ", module, slot.running[module] ? " runs" : "");
    }
    return result;
}
