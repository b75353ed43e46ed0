#include <srglworker/SrGlWorker.h>

#include "library_test.h"
#include "state_model.h"

namespace {

using Model = StateModel;

// --- the calls
// --------------------------------------------------------------------------------------------

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
    // a frame that does not fit is lost with an error, as it should
    return true;
}

// --- what the model answers
// -------------------------------------------------------------------------------

bool init_model(Model& m)
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

bool deinit_model(Model& m, const Choice&)
{
    m.sound_initialised = false;
    if (!m.initialised)
        return false;
    for (ModelSlot& slot : m.slots)
        m.close_slot(slot);
    m.initialised = false;
    return true;
}

bool open_model(Model& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    if (!slot || c.flaw == 1) // no name
        return false;
    m.close_slot(*slot);
    return slot->file = c.flaw == 0;
}

bool set_video_model(Model& m, const Choice& c)
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

bool set_audio_model(Model& m, const Choice& c)
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

bool set_mux_model(Model& m, const Choice& c)
{
    ModelSlot* const slot = m.configurable(c);
    return slot && (slot->video || slot->audio) && (slot->open[TSMUX] = true);
}

bool start_model(Model& m, const Choice& c)
{
    ModelSlot* const slot = m.usable(c);
    if (!slot || !(slot->video || slot->audio) || !slot->open[TSMUX] || !slot->file)
        return false;
    slot->start({VREADER, AREADER, VCAP, ACAP, VENC, TSMUX});
    return true;
}

bool stop_model(Model& m, const Choice& c)
{
    ModelSlot* const slot = m.usable(c);
    if (!slot)
        return false;
    const bool writes = slot->running[TSMUX];
    slot->running = {};
    slot->running[TSMUX] = writes;
    return true;
}

bool close_model(Model& m, const Choice& c)
{
    if (!m.usable(c))
        return false;
    m.close_slot(m.slots[c.slot]);
    return true;
}

bool one_call_model(Model& m, const Choice& c)
{
    init_model(m);
    ModelSlot& slot = m.slots[0];
    if (slot.busy() || c.flaw != 0 || !m.capable)
        return false;
    m.inject = false;
    slot.file = slot.video = slot.audio = true;
    for (const u32 module : {VCAP, ACAP, VENC, TSMUX})
        slot.open[module] = slot.running[module] = true;
    return true;
}

bool encode_open_model(Model& m, const Choice& c)
{
    ModelSlot& slot = m.slots[0];
    if (slot.open[VCAP])
        return false;
    m.close_module(slot, VCAP);
    m.capable = true;
    if (c.flaw == 1) // a picture that no memory holds
        return false;
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

bool stills_open_model(Model& m, const Choice& c)
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

bool sound_open_model(Model& m, const Choice&)
{
    if (m.slots[0].open[ACAP])
        return false;
    m.sound_initialised = true;
    m.slots[0].running[ACAP] = false;
    return m.slots[0].open[ACAP] = true;
}

/** Starts those modules of slot 0 that are open. */
template <u32... modules> bool start_modules(Model& m, const Choice&)
{
    m.slots[0].start({modules...});
    return true;
}

template <u32... modules> bool close_modules(Model& m, const Choice&)
{
    for (const u32 module : {modules...})
        if (m.slots[0].open[module])
            m.close_module(m.slots[0], module);
    return true;
}

/** Succeeds, and moves nothing. */
constexpr auto no_move = [](Model&, const Choice&) { return true; };

// --- what may be called
// -----------------------------------------------------------------------------------

constexpr auto always = [](const Model&, const Choice&) { return true; };

bool slot_is_idle(const Model& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || m.slots[c.slot].busy() || m.slots[c.slot].idle();
}

template <u32... modules> bool slot_has_not(const Model& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || !(m.slots[c.slot].open[modules] || ...);
}

bool may_init(const Model& m, const Choice&)
{
    const bool all_is_closed = m.slots[0].idle() && m.slots[1].idle() && !m.block;
    return m.initialised || (all_is_closed && !m.sound_initialised);
}

bool may_set_video(const Model& m, const Choice& c)
{
    const bool other_captures = c.slot < SCREENRECORD_SLOT_COUNT && m.slots[1 - c.slot].open[VCAP];
    return slot_has_not<VENC, VCAP, VREADER>(m, c) && !other_captures;
}

} // namespace

const std::vector<Operation> OPERATIONS = {
    {"Init", 0, may_init, [](Model& m, const Choice&) { return init_model(m); },
     [](Choice&) { return SCREENRECORD_Init() == 1; }},
    {"DeInit", 0,
     [](const Model& m, const Choice&) { return m.initialised || !m.slots[0].open[ACAP]; },
     deinit_model, [](Choice&) { return SCREENRECORD_DeInit() == 1; }},
    {"Open", 2, slot_is_idle, open_model,
     [](Choice& c) {
         return steps::open(c.slot, c.flaw == 1 ? nullptr : c.flaw == 2 ? "wifi" : "out.ts") == 1;
     }},
    {"SetVideo", 4, may_set_video, set_video_model, set_video},
    {"SetAudio", 4, slot_has_not<AREADER>, set_audio_model, set_audio},
    {"SetTsMux", 0, slot_has_not<TSMUX>, set_mux_model,
     [](Choice& c) { return steps::set_mux(c.slot, 188, c.variant % 3) == 1; }},
    {"Start", 0, always, start_model, [](Choice& c) { return SCREENRECORD_Start(&c.slot) == 1; }},
    {"Stop", 0, always, stop_model, [](Choice& c) { return SCREENRECORD_Stop(&c.slot) == 1; }},
    {"Close", 0, always, close_model, [](Choice& c) { return SCREENRECORD_Close(&c.slot) == 1; }},
    {"startScreenRecord", 3,
     [](const Model& m, const Choice& c) {
         return may_init(m, c) && slot_is_idle(m, {0}) && !m.slots[1].open[VCAP];
     },
     one_call_model, one_call},
    {"stopScreenRecord", 0, always, [](Model& m, const Choice&) { return close_model(m, {0}); },
     [](Choice&) { return ok(stopScreenRecord()); }},
    {"capenc_open", 2,
     [](const Model& m, const Choice&) {
         return !m.slots[0].open[TSMUX] && !m.slots[1].open[VCAP];
     },
     encode_open_model, encode_open},
    {"capenc_start", 0, always, start_modules<VCAP, VENC>,
     [](Choice&) { return ok(video_capenc_start(0)); }},
    {"capenc_stop", 0, always,
     [](Model& m, const Choice&) {
         m.slots[0].running[VCAP] = m.slots[0].running[VENC] = m.watermark = false;
         return true;
     },
     [](Choice&) { return ok(video_capenc_stop()); }},
    {"capenc_close", 0, always, close_modules<VCAP, VENC>,
     [](Choice&) { return ok(video_capenc_close()); }},
    {"capenc_pause", 0, always, no_move, [](Choice&) { return ok(video_capenc_pause()); }},
    {"capenc_resume", 0, always, no_move, [](Choice&) { return ok(video_capenc_resume()); }},
    {"capenc_setBitRate", 0, always, [](Model& m, const Choice&) { return m.slots[0].open[VENC]; },
     [](Choice&) { return ok(video_capenc_setBitRate(2000000)); }},
    {"capenc_setWatermark", 0,
     [](const Model& m, const Choice&) {
         return m.slots[0].open[VENC] && m.inject && (m.watermark || !m.descriptor);
     },
     [](Model& m, const Choice&) {
         m.descriptor = m.descriptor || !m.watermark;
         return m.watermark = m.inject;
     },
     [](Choice&) { return ok(video_capenc_setWatermark(android::WatermarkParams())); }},
    {"capenc_getES", 1, always, no_move, take_frame},
    {"capenc_requestKeyFrame", 0, always, no_move,
     [](Choice&) {
         return ok(video_capenc_requestKeyFrame()) && video_capenc_getMaxEsSize() == 2097152;
     }},
    {"cap_open", 3,
     [](const Model& m, const Choice&) { return !m.block && !m.slots[1].open[VCAP]; },
     stills_open_model, stills_open},
    {"cap_getCaptureBuffers", 1, always,
     [](Model& m, const Choice& c) { return m.block && c.flaw == 0; }, stills_describe},
    {"cap_captureScreen", 1, always,
     [](Model& m, const Choice& c) {
         return c.flaw == 0 && m.block && m.slots[0].open[VCAP] && m.buffers != 0;
     },
     stills_capture},
    {"cap_close", 0, always,
     [](Model& m, const Choice& c) {
         m.block = false;
         return close_modules<VCAP>(m, c);
     },
     [](Choice&) { return ok(video_cap_close()); }},
    {"audio_cap_open", 0, always, sound_open_model, [](Choice&) { return ok(audio_cap_open()); }},
    {"audio_cap_start", 0, always, start_modules<ACAP>,
     [](Choice&) { return ok(audio_cap_start()); }},
    {"audio_cap_stop", 0, always,
     [](Model& m, const Choice&) {
         m.slots[0].running[ACAP] = false;
         return true;
     },
     [](Choice&) { return ok(audio_cap_stop()); }},
    {"audio_cap_close", 0, always, close_modules<ACAP>,
     [](Choice&) { return ok(audio_cap_close()); }},
    {"audio_cap_getPCM", 0, always, [](Model& m, const Choice&) { return m.slots[0].open[ACAP]; },
     sound_read},
    {"audio_cap_getInfo", 0, always, no_move,
     [](Choice&) {
         AudioCap_Info info = {};
         return ok(audio_cap_getInfo(&info)) && info.u32Channels == 2 &&
                audio_cap_getLostSize() == 0;
     }},
};
