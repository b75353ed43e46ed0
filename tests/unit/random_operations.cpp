/** The calls with their arguments, and the table of all operations. */
#include <srglworker/SrGlWorker.h>

#include "library_test.h"
#include "model_moves.h"

namespace {

bool set_video(Choice& c)
{
    const char* source = c.flaw == 4 ? "missing.nv12" : c.variant % 2 ? "a.nv12" : "cap";
    static const char* const codecs[] = {nullptr, "", "auto", "default", "h264"};
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return steps::set_video(c.slot, c.flaw == 1 ? nullptr : source,
                            c.flaw == 2 ? "h265" : codecs[c.variant % 5], width,
                            c.variant % 4 * 120) == 1;
}

bool set_audio(Choice& c)
{
    const int kind = c.variant % 4;
    const char* source = c.flaw == 3 ? "missing" : kind == 1 || c.flaw == 4 ? "a.nv12" : "cap";
    const char* codec = c.flaw == 2                                 ? "ac3"
                        : (kind == 3 && c.flaw != 3) || c.flaw == 4 ? "mp3"
                                                                    : "aac";
    return steps::set_audio(c.slot, c.flaw == 1 ? nullptr : source, codec) == 1;
}

bool one_call(Choice& c)
{
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return ok(startScreenRecord(width, 0, 0, c.variant % 2, 188, c.variant % 5, c.flaw == 2 ? 7 : 0,
                                c.flaw == 1 ? nullptr : steps::text("one.ts")));
}

bool encode_open(Choice& c)
{
    CapEnc_OpenParams params = {
        c.variant % 2 ? 320u : 640u, c.variant % 2 ? 240u : 480u, 30, 1000000, 1, 2, 0};
    if (c.flaw != 0)
        params.width = params.height = c.flaw == 1 ? 60000 : 4000;
    return ok(video_capenc_open(&params));
}

bool stills_open(Choice& c)
{
    Cap_OpenParams params = {64, 64, c.variant % 4u, 0, 1 + c.variant % 3};
    if (c.flaw == 1)
        params.buffer_number = 0;
    if (c.flaw == 2)
        params.colorfmt = 9;
    if (c.flaw == 3)
        params.width = params.height = 60000;
    return ok(video_cap_open(&params));
}

bool stills_describe(Choice& c)
{
    Cap_Buffer buffers[3] = {};
    return ok(video_cap_getCaptureBuffers(buffers, c.flaw ? 99 : StateModel::of_library().buffers));
}

bool stills_capture(Choice& c)
{
    return ok(
        video_cap_captureScreen(c.flaw ? static_cast<s32>(StateModel::of_library().buffers) : 0));
}

bool sound_read(Choice&)
{
    u8 sound[64];
    u64 size = 0;
    return ok(audio_cap_getPCM(sound, sizeof(sound), &size));
}

/** Takes a frame. Each that the encoder delivered consists of one value, so a mixture is seen. */
bool take_frame(Choice& c)
{
    Bytes buffer(c.flaw ? 50 : 4096, 0xEE);
    const u64 offered = buffer.size() - 16;
    CapEnc_EsInfo info = {};
    const bool taken = ok(video_capenc_getES(buffer.data(), offered, &info));
    const u64 size = taken ? info.u64DataSize : 0;
    EXPECT_LE(size, offered);
    for (u64 index = 0; index < buffer.size(); index++)
        if (buffer[index] != (index < size ? static_cast<u8>(size) : 0xEE)) {
            ADD_FAILURE() << "byte " << index << " of a frame of " << size;
            break;
        }
    return true; // a frame that does not fit is lost with an error
}

/** A call without arguments, and one of a slot. */
template <auto call> bool succeeds(Choice&)
{
    return ok(call());
}
template <auto call> bool succeeds_on_slot(Choice& c)
{
    return call(&c.slot) == 1;
}

} // namespace

const std::vector<Operation> OPERATIONS = {
    {"Init", [](StateModel& m, const Choice&) { return moves::init(m); },
     [](Choice&) { return SCREENRECORD_Init() == 1; }, 0, allowed::may_init},
    {"DeInit", moves::deinit, [](Choice&) { return SCREENRECORD_DeInit() == 1; }, 0,
     [](const StateModel& m, const Choice&) { return m.initialised || !m.slots[0].open[ACAP]; }},
    {"Open", moves::open,
     [](Choice& c) {
         return steps::open(c.slot, c.flaw == 1 ? nullptr : c.flaw == 2 ? "wifi" : "out.ts") == 1;
     },
     2, allowed::slot_is_idle},
    {"SetVideo", moves::set_video, set_video, 4, allowed::may_set_video},
    {"SetAudio", moves::set_audio, set_audio, 4, allowed::slot_has_not<AREADER>},
    {"SetTsMux", moves::set_mux,
     [](Choice& c) { return steps::set_mux(c.slot, 188, c.variant % 3) == 1; }, 0,
     allowed::slot_has_not<TSMUX>},
    {"Start", moves::start, succeeds_on_slot<SCREENRECORD_Start>},
    {"Stop", moves::stop, succeeds_on_slot<SCREENRECORD_Stop>},
    {"Close", moves::close, succeeds_on_slot<SCREENRECORD_Close>},
    {"startScreenRecord", moves::one_call, one_call, 3,
     [](const StateModel& m, const Choice& c) {
         return allowed::may_init(m, c) && allowed::slot_is_idle(m, {0}) && !m.slots[1].open[VCAP];
     }},
    {"stopScreenRecord", [](StateModel& m, const Choice&) { return moves::close(m, {0}); },
     succeeds<stopScreenRecord>},
    {"capenc_open", moves::encode_open, encode_open, 2,
     [](const StateModel& m, const Choice&) {
         return !m.slots[0].open[TSMUX] && !m.slots[1].open[VCAP];
     }},
    {"capenc_start", moves::start_modules<VCAP, VENC>,
     [](Choice&) { return ok(video_capenc_start(0)); }},
    {"capenc_stop",
     [](StateModel& m, const Choice& c) {
         m.watermark = false;
         return moves::stop_modules<VCAP, VENC>(m, c);
     },
     succeeds<video_capenc_stop>},
    {"capenc_close", moves::close_modules<VCAP, VENC>, succeeds<video_capenc_close>},
    {"capenc_pause", moves::no_move, succeeds<video_capenc_pause>},
    {"capenc_resume", moves::no_move, succeeds<video_capenc_resume>},
    {"capenc_setBitRate", [](StateModel& m, const Choice&) { return m.slots[0].open[VENC]; },
     [](Choice&) { return ok(video_capenc_setBitRate(2000000)); }},
    {"capenc_setWatermark",
     [](StateModel& m, const Choice&) {
         m.descriptor = m.descriptor || !m.watermark;
         return m.watermark = m.inject;
     },
     [](Choice&) { return ok(video_capenc_setWatermark(android::WatermarkParams())); }, 0,
     [](const StateModel& m, const Choice&) {
         return m.slots[0].open[VENC] && m.inject && (m.watermark || !m.descriptor);
     }},
    {"capenc_getES", moves::no_move, take_frame, 1},
    {"capenc_requestKeyFrame", moves::no_move, succeeds<video_capenc_requestKeyFrame>},
    {"cap_open", moves::stills_open, stills_open, 3,
     [](const StateModel& m, const Choice&) { return !m.block && !m.slots[1].open[VCAP]; }},
    {"cap_getCaptureBuffers", [](StateModel& m, const Choice& c) { return m.block && c.flaw == 0; },
     stills_describe, 1},
    {"cap_captureScreen",
     [](StateModel& m, const Choice& c) {
         return c.flaw == 0 && m.block && m.slots[0].open[VCAP] && m.buffers != 0;
     },
     stills_capture, 1},
    {"cap_close",
     [](StateModel& m, const Choice& c) {
         m.block = false;
         return moves::close_modules<VCAP>(m, c);
     },
     succeeds<video_cap_close>},
    {"audio_cap_open", moves::sound_open, succeeds<audio_cap_open>},
    {"audio_cap_start", moves::start_modules<ACAP>, succeeds<audio_cap_start>},
    {"audio_cap_stop", moves::stop_modules<ACAP>, succeeds<audio_cap_stop>},
    {"audio_cap_close", moves::close_modules<ACAP>, succeeds<audio_cap_close>},
    {"audio_cap_getPCM", [](StateModel& m, const Choice&) { return m.slots[0].open[ACAP]; },
     sound_read},
    {"audio_cap_getInfo", moves::no_move,
     [](Choice&) {
         AudioCap_Info info = {};
         return ok(audio_cap_getInfo(&info)) && audio_cap_getLostSize() == 0;
     }},
};
