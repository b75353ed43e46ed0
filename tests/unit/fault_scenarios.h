/** A client's ways through the library, in and out, for the fault injection. */
#pragma once

#include <srglworker/SrGlWorker.h>

#include "fault_expectations.h"
#include "library_test.h"

/** A call of the client's; one that is not needed may fail without ending the way in. */
struct Step {
    std::string name;
    std::function<bool()> call;
    bool needed = true;
};

struct Scenario {
    const char* name;
    /** of its expectations */
    faults::Kind kind;
    std::vector<Step> in, out;
    /** how often it does the same */
    int passes = 1;
};

/** Builds the scenarios around a double that it prepares for them. */
class FaultScenarios : public LibraryTest {
protected:
    static constexpr u32 width = 64, height = 64, picture_size = width * height * 3 / 2;
    static constexpr u64 luma = 0x500000;

    /** A fresh double around the library as the run before left it. */
    void prepare()
    {
        callbacks_.clear();
        busy_ = false;
        mw.reset();
        _bSysInited = 0;
        for (const char* name : {"a.nv12", "a.aac"})
            mw.add_file(name, Bytes(3 * picture_size));
        mw.settings.encoder_input_size = picture_size;
        mw.settings.first_fd = 3;
        mw.map_physical(luma, picture_.data(), picture_size);
        // A task's first steps belong to its creation: the order of calls is then always the same.
        mw.inside("ZU_OS_CreateTask", [this] { mw.settle(); }, {.forever = true, .behind = true});
    }

    bool media(bool pictures, u64 at = luma)
    {
        if (pictures)
            mw.fire_picture({.luma = at, .chroma = at + width * height});
        for (const u8 type : {0xFF, 1}) {
            const auto frame = [=, this] {
                return mw.fire_encoded_frame(
                    {.bytes = {1, 2, 3}, .type = type, .pts = 1, .input_index = 1});
            };
            if (busy_) { // stays inside until the close
                callbacks_.push_back(mw.fire_on_thread(frame, false));
                mw.settle();
            } else {
                frame();
            }
        }
        return true;
    }

    Step recorded_media(bool pictures)
    {
        return {"media", [=, this] {
                    // more than a batch
                    mw.queue_output(Bytes(0x11000));
                    media(pictures);
                    mw.advance(250);
                    return true;
                }};
    }

    /** Of a client that never said Init, whose DeInit answers that it was not needed. */
    static inline const Step deinit = {"SCREENRECORD_DeInit",
                                       [] { return SCREENRECORD_DeInit() == 0; }};
    /** Where Init failed there must be nothing left to undo. */
    static inline const Step deinit_after_init = {
        "SCREENRECORD_DeInit", [] { return !_bModuleInited || SCREENRECORD_DeInit() == 1; }};

    Scenario recording(const char* name, u32 slot, faults::Kind kind)
    {
        const bool file = kind == faults::files;
        const char *const video = file ? "a.nv12" : "cap", *const audio = file ? "a.aac" : "cap";
        return {name,
                kind,
                {{"SCREENRECORD_Init", [] { return SCREENRECORD_Init() == 1; }},
                 {"SCREENRECORD_Open", [=] { return steps::open(slot) == 1; }},
                 {"SCREENRECORD_SetAudio", [=] { return steps::set_audio(slot, audio) == 1; }},
                 {"SCREENRECORD_SetVideo", [=] { return steps::set_video(slot, video) == 1; }},
                 {"SCREENRECORD_SetTsMux", [=] { return steps::set_mux(slot) == 1; }},
                 {"SCREENRECORD_Start", [=] { return steps::start(slot) == 1; }},
                 recorded_media(slot == 0 && !file)},
                {{"SCREENRECORD_Close", [=] { return !_bModuleInited || steps::close(slot) == 1; }},
                 deinit_after_init}};
    }

    Scenario one_call()
    {
        return {
            "one-call",
            faults::screen,
            {{"startScreenRecord", [] { return ok(steps::one_call(3600)); }}, recorded_media(true)},
            {{"stopScreenRecord", [] { return !_bModuleInited || ok(stopScreenRecord()); }},
             deinit_after_init}};
    }

    Scenario open_again()
    {
        Scenario scenario = recording("open again after close", 0, faults::screen);
        std::vector<Step> again = scenario.in;
        // closed instead of initialised
        again.front() = scenario.out.front();
        scenario.in.insert(scenario.in.end(), again.begin(), again.end());
        scenario.passes = 2;
        return scenario;
    }

    Scenario capture_encode(const char* name, faults::Kind kind)
    {
        static u8 frame[16];
        static CapEnc_EsInfo info;
        const bool inject = kind == faults::inject;
        const auto pictures = [=, this] { return media(true, inject ? inject_.physical : luma); };
        const auto open = [=, this] {
            if (inject)
                inject_ = mw.offer_inject_buffer(2 * picture_size);
            CapEnc_OpenParams params = {width, height, 30, 1000000, 1, 0x200, 0};
            return ok(video_capenc_open(&params));
        };
        // In copy mode the watermark is refused, and that is the right answer.
        const auto watermark = [=] { return video_capenc_setWatermark({}) == (inject ? 0 : -1); };
        const auto take = [=] { return ok(video_capenc_getES(frame, sizeof(frame), &info)); };
        return {name,
                kind,
                {{"video_capenc_open", open},
                 {"video_capenc_setWatermark", watermark},
                 {"video_capenc_start", [] { return ok(video_capenc_start(0)); }},
                 {"media", pictures},
                 {"video_capenc_getES", take, false},
                 {"video_capenc_setBitRate", [] { return ok(video_capenc_setBitRate(2000000)); },
                  false},
                 {"video_capenc_requestKeyFrame", [] { return ok(video_capenc_requestKeyFrame()); },
                  false}},
                {{"video_capenc_stop", [] { return ok(video_capenc_stop()); }},
                 {"video_capenc_close", [] { return ok(video_capenc_close()); }},
                 deinit}};
    }

    static Scenario stills()
    {
        static Cap_OpenParams params = {width, height, 2, 0, 2};
        static Cap_Buffer buffers[2];
        return {"stills",
                faults::stills,
                {{"video_cap_open", [] { return ok(video_cap_open(&params)); }},
                 {"video_cap_getCaptureBuffers",
                  [] { return ok(video_cap_getCaptureBuffers(buffers, 2)); }},
                 {"video_cap_captureScreen", [] { return ok(video_cap_captureScreen(1)); }}},
                {{"video_cap_close", [] { return ok(video_cap_close()); }}, deinit}};
    }

    Scenario pcm()
    {
        static u8 buffer[64];
        static u64 size;
        const auto read = [this] {
            mw.queue_audio(Bytes(sizeof(buffer)));
            return ok(audio_cap_getPCM(buffer, sizeof(buffer), &size));
        };
        return {"PCM",
                faults::pcm,
                {{"audio_cap_open", [] { return ok(audio_cap_open()); }},
                 {"audio_cap_start", [] { return ok(audio_cap_start()); }},
                 {"audio_cap_getPCM", read, false},
                 {"audio_cap_stop", [] { return ok(audio_cap_stop()); }, false}},
                {{"audio_cap_close", [] { return ok(audio_cap_close()); }}, deinit}};
    }

    std::vector<Scenario> scenarios()
    {
        return {one_call(),
                recording("step by step, slot 0", 0, faults::screen),
                recording("step by step, slot 1", 1, faults::screen),
                recording("file source", 1, faults::files),
                capture_encode("capture-encode, inject, watermark", faults::inject),
                capture_encode("capture-encode, copy, watermark", faults::copy),
                stills(),
                pcm(),
                open_again()};
    }

    /** that are still inside */
    std::vector<std::future<u32>> callbacks_;
    /** the multiplexer never accepts a frame */
    bool busy_ = false;

private:
    Bytes picture_ = Bytes(picture_size);
    middleware::InjectBuffer inject_ = {};
};
