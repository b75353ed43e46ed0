#include <zu3/tsmux.h>

#include "modules/encoder.h"
#include "modules/module.h"
#include "modules/multiplexer.h"
#include "modules/screen_capture.h"
#include "modules/sound_capture.h"
#include "modules/source_reader.h"

namespace {

/** Counts as initialised by this library, with nothing to undo. */
u32 InitNothing()
{
    return ZU_OK;
}

/** The middleware has no initialisation for this module. */
u32 InitElsewhere()
{
    return ZU_ALREADY_INITIALISED;
}

} // namespace

/**
 * The stop of every module deletes its worker, so source readers need no stop. The audio encoder
 * has no operation.
 */
const SCREENRECORD_ModuleOperations_s _astModuleOperations[E_SCREENRECORD_MODULE_MAX] = {
    /* VIDEO_SRC_READER */ {.pfnInit = InitNothing, .pfnStart = _SCREENRECORD_StartVideoReader},
    /* AUDIO_SRC_READER */ {.pfnInit = InitNothing, .pfnStart = _SCREENRECORD_StartAudioReader},
    /* VCAP */
    {.pfnInit = InitElsewhere,
     .pfnDeInit = ZU_CAP_DeInit,
     .pDeInitFailure = "Failed to Deinit Cap",
     .pfnStart = _SCREENRECORD_StartVcap,
     .pfnStop = _SCREENRECORD_StopVcap,
     .pfnForget = _SCREENRECORD_ForgetCapture},
    /* ACAP */
    {.pfnInit = _SCREENRECORD_InitAcap,
     .pfnDeInit = ZU_ACAP_DeInit,
     .pDeInitFailure = "Failed to Deinit ACap",
     .pfnStart = _SCREENRECORD_StartAcap,
     .pfnStop = _SCREENRECORD_StopAcap},
    /* VENC */
    {.pfnInit = _SCREENRECORD_InitVenc,
     .pfnDeInit = ZU_VENC_DeInit,
     .pDeInitFailure = "Failed to Deinit Venc",
     .pfnStart = _SCREENRECORD_StartVenc,
     .pfnStop = _SCREENRECORD_StopVenc},
    /* AENC */ {.pfnInit = InitElsewhere},
    /* TSMUX */
    {.pfnInit = _SCREENRECORD_InitTsmux,
     .pfnDeInit = ZU_TSMUX_DeInit,
     .pDeInitFailure = "Failed to Deinit Tsmux",
     .pfnStart = _SCREENRECORD_StartTsmux,
     .pfnStop = _SCREENRECORD_StopTsmux},
};
