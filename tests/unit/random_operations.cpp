#include "random_operations.h"

#include <srglworker/SrGlWorker.h>

#include "library_test.h"

namespace {

constexpr u32 VCAP = E_SCREENRECORD_MODULE_VCAP, ACAP = E_SCREENRECORD_MODULE_ACAP,
              VENC = E_SCREENRECORD_MODULE_VENC, TSMUX = E_SCREENRECORD_MODULE_TSMUX;
using middleware::Bytes;

u32 set_video(const Choice& c)
{
    const char* source = c.flaw == 4 ? "missing.nv12" : c.variant % 2 ? "a.nv12" : "cap";
    static const char* const codecs[] = {nullptr, "", "auto", "default", "h264"};
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return steps::set_video(c.slot, c.flaw == 1 ? nullptr : source,
                            c.flaw == 2 ? "h265" : codecs[c.variant % 5], width, c.variant % 4 * 120);
}

u32 set_audio(const Choice& c)
{
    const int kind = c.variant % 4;
    const char* source = c.flaw == 3 ? "missing" : kind == 1 || c.flaw == 4 ? "a.nv12" : "cap";
    const char* codec = c.flaw == 2 ? "ac3" : (kind == 3 && c.flaw != 3) || c.flaw == 4 ? "mp3" : "aac";
    return steps::set_audio(c.slot, c.flaw == 1 ? nullptr : source, codec);
}

s32 one_call(const Choice& c)
{
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return startScreenRecord(width, 0, 0, c.variant % 2, 188, c.variant % 5, c.flaw == 2 ? 7 : 0,
                             c.flaw == 1 ? nullptr : steps::text("one.ts"));
}

s32 encode_open(const Choice& c)
{
    CapEnc_OpenParams params = {
        c.variant % 2 ? 320u : 640u, c.variant % 2 ? 240u : 480u, 30, 1000000, 1, 2, 0};
    if (c.flaw != 0)
        params.width = params.height = c.flaw == 1 ? 60000 : 4000;
    return video_capenc_open(&params);
}

s32 stills_open(const Choice& c)
{
    Cap_OpenParams params = {64, 64, c.variant % 4u, 0, 1 + c.variant % 3};
    if (c.flaw == 1)
        params.buffer_number = 0;
    if (c.flaw == 2)
        params.colorfmt = 9;
    if (c.flaw == 3)
        params.width = params.height = 60000;
    return video_cap_open(&params);
}

s32 stills_describe(const Choice& c)
{
    Cap_Buffer buffers[3] = {};
    return video_cap_getCaptureBuffers(buffers, c.flaw ? 99 : StateModel::of_library().buffers);
}

s32 stills_capture(const Choice& c)
{
    return video_cap_captureScreen(c.flaw ? static_cast<s32>(StateModel::of_library().buffers) : 0);
}

s32 sound_read(const Choice&)
{
    u8 sound[64];
    u64 size = 0;
    return audio_cap_getPCM(sound, sizeof(sound), &size);
}

/** Takes a frame. Each that the encoder delivered consists of one value, so a mixture is seen. */
bool take_frame(const Choice& c)
{
    Bytes buffer(c.flaw ? 50 : 4096, 0xEE);
    const u64 offered = buffer.size() - 16;
    CapEnc_EsInfo info = {};
    const bool taken = video_capenc_getES(buffer.data(), offered, &info) == 0;
    const u64 size = taken ? info.u64DataSize : 0;
    EXPECT_LE(size, offered);
    for (u64 index = 0; index < buffer.size(); index++)
        if (buffer[index] != (index < size ? static_cast<u8>(size) : 0xEE)) {
            ADD_FAILURE() << "byte " << index << " of a frame of " << size;
            break;
        }
    return true; // a frame that does not fit is lost with an error, as it should
}

bool always(const StateModel&, const Choice&)
{
    return true;
}

bool other_slot_captures(const StateModel& m, u32 slot)
{
    return slot < SCREENRECORD_SLOT_COUNT && m.slots[1 - slot].open[VCAP];
}

bool all_is_closed(const StateModel& m)
{
    return m.slots[0].idle() && m.slots[1].idle() && !m.block;
}

bool slot_is_idle(const StateModel& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || m.slots[c.slot].busy() || m.slots[c.slot].idle();
}

bool may_init(const StateModel& m, const Choice&)
{
    return m.initialised || (all_is_closed(m) && !m.sound_initialised);
}

bool may_set_video(const StateModel& m, const Choice& c)
{
    if (c.slot >= SCREENRECORD_SLOT_COUNT)
        return true;
    const ModelSlot& slot = m.slots[c.slot];
    return !slot.open[VENC] && !slot.open[VCAP] && !slot.open[E_SCREENRECORD_MODULE_VIDEO_SRC_READER] &&
           !other_slot_captures(m, c.slot);
}

} // namespace

const std::vector<Operation> OPERATIONS = {
    {"Init", 0, may_init, &StateModel::init, [](Choice&) { return SCREENRECORD_Init() == 1; }},
    {"DeInit", 0, [](const StateModel& m, const Choice&) { return m.initialised || !m.slots[0].open[ACAP]; },
     &StateModel::deinit, [](Choice&) { return SCREENRECORD_DeInit() == 1; }},
    {"Open", 2, slot_is_idle, &StateModel::open,
     [](Choice& c) {
         return steps::open(c.slot, c.flaw == 1 ? nullptr : c.flaw == 2 ? "wifi" : "out.ts") == 1;
     }},
    {"SetVideo", 4, may_set_video, &StateModel::set_video, [](Choice& c) { return set_video(c) == 1; }},
    {"SetAudio", 4,
     [](const StateModel& m, const Choice& c) {
         return c.slot >= SCREENRECORD_SLOT_COUNT ||
                !m.slots[c.slot].open[E_SCREENRECORD_MODULE_AUDIO_SRC_READER];
     },
     &StateModel::set_audio, [](Choice& c) { return set_audio(c) == 1; }},
    {"SetTsMux", 0,
     [](const StateModel& m, const Choice& c) {
         return c.slot >= SCREENRECORD_SLOT_COUNT || !m.slots[c.slot].open[TSMUX];
     },
     &StateModel::set_mux, [](Choice& c) { return steps::set_mux(c.slot, 188, c.variant % 3) == 1; }},
    {"Start", 0, always, &StateModel::start, [](Choice& c) { return SCREENRECORD_Start(&c.slot) == 1; }},
    {"Stop", 0, always, &StateModel::stop, [](Choice& c) { return SCREENRECORD_Stop(&c.slot) == 1; }},
    {"Close", 0, always, &StateModel::close, [](Choice& c) { return SCREENRECORD_Close(&c.slot) == 1; }},
    {"startScreenRecord", 3,
     [](const StateModel& m, const Choice& c) {
         return may_init(m, c) && slot_is_idle(m, {0}) && !m.slots[1].open[VCAP];
     },
     &StateModel::one_call, [](Choice& c) { return one_call(c) == 0; }},
    {"stopScreenRecord", 0, always, &StateModel::one_call_stop,
     [](Choice&) { return stopScreenRecord() == 0; }},
    {"capenc_open", 2,
     [](const StateModel& m, const Choice&) { return !m.slots[0].open[TSMUX] && !m.slots[1].open[VCAP]; },
     &StateModel::encode_open, [](Choice& c) { return encode_open(c) == 0; }},
    {"capenc_start", 0, always, &StateModel::encode_start,
     [](Choice&) { return video_capenc_start(0) == 0; }},
    {"capenc_stop", 0, always, &StateModel::encode_stop, [](Choice&) { return video_capenc_stop() == 0; }},
    {"capenc_close", 0, always, &StateModel::encode_close, [](Choice&) { return video_capenc_close() == 0; }},
    {"capenc_pause", 0, always, &StateModel::succeeds, [](Choice&) { return video_capenc_pause() == 0; }},
    {"capenc_resume", 0, always, &StateModel::succeeds, [](Choice&) { return video_capenc_resume() == 0; }},
    {"capenc_setBitRate", 0, always, &StateModel::set_bit_rate,
     [](Choice&) { return video_capenc_setBitRate(2000000) == 0; }},
    {"capenc_setWatermark", 0,
     [](const StateModel& m, const Choice&) {
         return m.slots[0].open[VENC] && m.inject && (m.watermark || !m.descriptor);
     },
     &StateModel::set_watermark,
     [](Choice&) { return video_capenc_setWatermark(android::WatermarkParams()) == 0; }},
    {"capenc_getES", 1, always, &StateModel::succeeds, [](Choice& c) { return take_frame(c); }},
    {"capenc_requestKeyFrame", 0, always, &StateModel::succeeds,
     [](Choice&) { return video_capenc_requestKeyFrame() == 0 && video_capenc_getMaxEsSize() == 2097152; }},
    {"cap_open", 3, [](const StateModel& m, const Choice&) { return !m.block && !m.slots[1].open[VCAP]; },
     &StateModel::stills_open, [](Choice& c) { return stills_open(c) == 0; }},
    {"cap_getCaptureBuffers", 1, always, &StateModel::stills_describe,
     [](Choice& c) { return stills_describe(c) == 0; }},
    {"cap_captureScreen", 1, always, &StateModel::stills_capture,
     [](Choice& c) { return stills_capture(c) == 0; }},
    {"cap_close", 0, always, &StateModel::stills_close, [](Choice&) { return video_cap_close() == 0; }},
    {"audio_cap_open", 0, always, &StateModel::sound_open, [](Choice&) { return audio_cap_open() == 0; }},
    {"audio_cap_start", 0, always, &StateModel::sound_start, [](Choice&) { return audio_cap_start() == 0; }},
    {"audio_cap_stop", 0, always, &StateModel::sound_stop, [](Choice&) { return audio_cap_stop() == 0; }},
    {"audio_cap_close", 0, always, &StateModel::sound_close, [](Choice&) { return audio_cap_close() == 0; }},
    {"audio_cap_getPCM", 0, always, &StateModel::sound_read, [](Choice& c) { return sound_read(c) == 0; }},
    {"audio_cap_getInfo", 0, always, &StateModel::succeeds,
     [](Choice&) {
         AudioCap_Info info = {};
         return audio_cap_getInfo(&info) == 0 && info.u32Channels == 2 && audio_cap_getLostSize() == 0;
     }},
};
