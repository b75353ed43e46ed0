#include <core/modules.h>
#include <core/worker_tasks.h>
#include <stream/sources.h>

#include "library_test.h"

namespace {

class ModuleArguments : public LibraryTest {};

TEST_F(ModuleArguments, NoRecordAndNoSuchModuleAreRefusedUntouched)
{
    _bSysInited = 1;
    SCREENRECORD_SlotCtrl_s* slot = &_astSlotCtrl[0];
    SCREENRECORD_TaskCtrl_s unknown;
    unknown.eModule = E_SCREENRECORD_MODULE_MAX;
    unknown.u32Handle = 1;
    SCREENRECORD_TaskCtrl_s encoder;
    encoder.eModule = E_SCREENRECORD_MODULE_VENC;
    const std::pair<const char*, u32> results[] = {
        {"OpenVenc", _SCREENRECORD_OpenVenc(slot, nullptr)},
        {"OpenVcap", _SCREENRECORD_OpenVcap(slot, nullptr)},
        {"OpenSrcReader, no slot", _SCREENRECORD_OpenSrcReader(nullptr, &encoder)},
        {"OpenSrcReader, no record", _SCREENRECORD_OpenSrcReader(slot, nullptr)},
        {"OpenSrcReader, no reader", _SCREENRECORD_OpenSrcReader(slot, &encoder)},
        {"InitModule, unknown", _SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_MAX)},
        {"StartModule", _SCREENRECORD_StartModule(nullptr, 0)},
        {"StartModule, unknown", _SCREENRECORD_StartModule(&unknown, 0)},
        {"StopModule", _SCREENRECORD_StopModule(nullptr)},
        {"StopModule, unknown", _SCREENRECORD_StopModule(&unknown)},
        {"CloseSrcReader", _SCREENRECORD_CloseSrcReader(nullptr)},
        {"CloseVcap", _SCREENRECORD_CloseVcap(nullptr)},
        {"CloseAcap", _SCREENRECORD_CloseAcap(nullptr)},
        {"CloseVenc", _SCREENRECORD_CloseVenc(nullptr)},
        {"CloseTsmux", _SCREENRECORD_CloseTsmux(nullptr)},
        {"CreateTask", _SCREENRECORD_CreateTask(nullptr, 0, 0, nullptr)},
        {"DeleteTask", _SCREENRECORD_DeleteTask(nullptr)},
    };
    for (const auto& [name, result] : results)
        EXPECT_EQ(result, ZU_INVALID_ARGUMENT) << name;
    EXPECT_EQ(mw.take_calls(), std::vector<std::string>{});
}

TEST_F(ModuleArguments, TheBitWidthAndTheSizeAreTakenWhereTheyAreGiven)
{
    ASSERT_EQ(SCREENRECORD_Init(), 1u);
    const std::pair<u32, u8> widths[] = {{0, 16}, {24, 24}};
    for (const auto& [given, kept] : widths) {
        u32 slot = 0, width = given;
        ASSERT_EQ(steps::open(0), 1u);
        EXPECT_EQ(SCREENRECORD_SetAudio(&slot, steps::text("cap"), nullptr, &width), 1u);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u8AudioBitWidth, kept);
        EXPECT_EQ(SCREENRECORD_SetVideo(&slot, steps::text("cap"), nullptr, nullptr, nullptr, nullptr), 1u);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32Width, 640u);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32Height, 480u);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32FrameRate, 30u);
        EXPECT_EQ(SCREENRECORD_Close(&slot), 1u);
    }
}

TEST_F(ModuleArguments, AnotherCodecThatIsAcceptedIsAnnouncedAsAnother)
{
    ASSERT_EQ(SCREENRECORD_Init(), 1u);
    ASSERT_EQ(steps::open(0), 1u);
    ASSERT_EQ(steps::set_video(0, "cap", "mpeg4"), 1u);
    ASSERT_EQ(steps::set_mux(0), 1u);
    EXPECT_CALLS(mw.calls_of({"ZU_TSMUX_AttachMediaSource"}),
                 {"ZU_TSMUX_AttachMediaSource(0x41, type=0x3 pid=0x101 stream=0xe0)=0 id=0x100000051"});
}

} // namespace
