#pragma once

#include <gtest/gtest.h>

#include <screenrecord/screenrecord.h>

/** Whether a call succeeded that answers only 0 or -1. */
inline bool ok(s32 answer)
{
    EXPECT_TRUE(answer == 0 || answer == -1) << answer;
    return answer == 0;
}

/** The steps of a recording, in the client's order; each returns what the library returned. */
namespace steps {

inline u8* text(const char* name)
{
    return reinterpret_cast<u8*>(const_cast<char*>(name));
}

inline u32 open(u32 slot, const char* name = "out.ts")
{
    return SCREENRECORD_Open(&slot, text(name));
}

inline u32 set_audio(u32 slot, const char* source = "cap", const char* codec = nullptr)
{
    return SCREENRECORD_SetAudio(&slot, text(source), text(codec), nullptr);
}

inline u32 set_video(u32 slot, const char* source = "cap", const char* codec = nullptr,
                     u32 width = 0, u32 height = 0, u32 rate = 0)
{
    return SCREENRECORD_SetVideo(&slot, text(source), text(codec), &width, &height, &rate);
}

inline u32 set_mux(u32 slot, u32 packet_size = 188, u32 rate = 0)
{
    return SCREENRECORD_SetTsMux(&slot, &packet_size, &rate);
}

inline u32 start(u32 slot)
{
    return SCREENRECORD_Start(&slot);
}
inline u32 stop(u32 slot)
{
    return SCREENRECORD_Stop(&slot);
}
inline u32 close(u32 slot)
{
    return SCREENRECORD_Close(&slot);
}

/** Init to SetTsMux; 1 when every step succeeded. */
inline u32 configure(u32 slot, const char* video = "cap", const char* audio = "cap")
{
    return SCREENRECORD_Init() && open(slot) && set_audio(slot, audio) && set_video(slot, video) &&
           set_mux(slot);
}

inline u32 record(u32 slot, const char* video = "cap", const char* audio = "cap")
{
    return configure(slot, video, audio) && start(slot);
}

/** Pictures alone, of that size. */
inline u32 record_pictures(u32 slot, u32 width, u32 height)
{
    return SCREENRECORD_Init() && open(slot) && set_video(slot, "cap", nullptr, width, height) &&
           set_mux(slot) && start(slot);
}

/** Closes whatever is open, through every interface. */
inline void close_all()
{
    video_capenc_stop();
    video_capenc_close();
    video_cap_close();
    audio_cap_close();
    SCREENRECORD_DeInit();
}

/** Opens and starts capture-encode. */
inline bool capture_encode(u32 width = 640, u32 height = 480)
{
    CapEnc_OpenParams params = {width, height, 30, 1000000, 1, 0x200, 0};
    return video_capenc_open(&params) == 0 && video_capenc_start(0) == 0;
}

inline s32 one_call(u32 limit_seconds = 0)
{
    return startScreenRecord(0, 0, 0, 0, 188, limit_seconds, 0, text("out.ts"));
}

} // namespace steps
