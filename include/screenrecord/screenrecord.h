/**
 * @file
 * screenrecord: captures the composed screen and encodes it as H.264 (ISO/IEC 14496-10). It writes
 * an MPEG transport stream (ISO/IEC 13818-1) to a file, or gives the caller encoded frames,
 * screenshots or raw PCM.
 *
 * Five interfaces share two recording slots:
 *
 *  - SCREENRECORD_*      transport-stream recording, step by step, on slot 0 or 1
 *  - startScreenRecord   the same on slot 0, in one call
 *  - video_capenc_*      encoded frames of the screen, on slot 0
 *  - video_cap_*         screenshots, on slot 0
 *  - audio_cap_*         raw PCM of the sound that the device plays, on slot 0
 *
 * Sharing a slot: use slot 0 for one interface at a time, and close that interface before you open
 * the next.
 *
 *  - video_capenc_open, video_cap_open and audio_cap_open refuse if the capture, encoder or audio
 *    capture that they need is open.
 *  - A recording refuses a slot with a running module. It treats an open but unstarted slot as
 *    free; modules open there are lost.
 *  - The SCREENRECORD_Init or startScreenRecord that initialises the library (the first of the
 *    process, or the first after SCREENRECORD_DeInit) empties both slots, even if something is open
 *    there.
 *
 * Threads: call any function from any thread. Control calls (open, configure, start, stop, close)
 * exclude one another inside the library. Media flows on threads of the middleware; after a close
 * has returned, none of them touches the recording. In a callback of the middleware, call only
 * video_capenc_pause, video_capenc_resume, video_capenc_getMaxEsSize, audio_cap_getPCM,
 * audio_cap_getInfo and audio_cap_getLostSize.
 *
 * fork(): the child has none of the middleware's threads, and a lock that one of them owned stays
 * locked in it forever. In the child, call only video_capenc_getMaxEsSize, audio_cap_getInfo and
 * audio_cap_getLostSize, and finish with exec or _exit.
 *
 * dlclose() never unloads the library.
 *
 * Errors: each failed call logs its reason to the Android log with the tag "screenrecord".
 *
 * Languages: C and C++, except video_capenc_setWatermark, which needs a C++ object. The
 * SCREENRECORD_ functions have C++ symbol names; C code links to those names.
 */
#ifndef SCREENRECORD_SCREENRECORD_H
#define SCREENRECORD_SCREENRECORD_H

#include <stdint.h>

/** Exports the declaration; the library hides all others. */
#define SCREENRECORD_EXPORT __attribute__((visibility("default")))

/** Gives a declaration its C++ symbol name when a C compiler reads it. */
#ifdef __cplusplus
#define SCREENRECORD_CXX_NAME(name)
#else
#define SCREENRECORD_CXX_NAME(name) __asm__(name)
#endif

/**
 * Initialises the middleware's modules and reads their capabilities. Call it once before the other
 * SCREENRECORD_ functions; further calls do nothing.
 * @return 1 on success; 0 if a module failed to initialise (the others are released again)
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Init(void)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_Initv");

/**
 * Closes both slots and releases the modules that SCREENRECORD_Init initialised. The library is
 * uninitialised afterwards, regardless of the result.
 * @return 1 if both slots closed without an error; 0 otherwise, and if the library was not
 *     initialised
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_DeInit(void)
    SCREENRECORD_CXX_NAME("_Z19SCREENRECORD_DeInitv");

/**
 * Resets a slot and creates its output file; an existing file is truncated. Close the slot before.
 * Refused while a module of the slot runs.
 * @param pu32Handle slot, 0 or 1
 * @param pu8DstName NUL-terminated file name, copied; "wifi" is refused
 * @return 1 on success; 0 on failure (either refused, with nothing changed, or the slot is closed)
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Open(uint32_t* pu32Handle, uint8_t* pu8DstName)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_OpenPjPh");

/**
 * Sets the video source of an open slot, and opens the source and the encoder. Call it before
 * SCREENRECORD_SetTsMux.
 * @param pu32Handle    slot, 0 or 1
 * @param pu8SrcName    "cap" for the screen, or the name of a file.
 *     - "cap": slot 0 only. Captured pictures always go to the encoder of slot 0, so a recording of
 *       the screen on slot 1 has no pictures.
 *     - File: raw NV12, played once. Stride: the width rounded up to 16. Luma lines: the height
 *       rounded up to 32; the chroma plane follows them.
 * @param pu8VencType   codec: NULL, "", "auto", "default" or "h264"
 * @param pu32Width     pixels, up to the encoder's maximum; NULL or 0 = 640
 * @param pu32Height    lines, up to the encoder's maximum; NULL or 0 = 480
 * @param pu32FrameRate frames per second, up to the encoder's maximum; NULL or 0 = 30
 * @return 1 on success; 0 on failure. A failure closes the slot, unless the handle was bad, the
 *     slot was running, or the name was NULL
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetVideo(uint32_t* pu32Handle, uint8_t* pu8SrcName,
                                                   uint8_t* pu8VencType, uint32_t* pu32Width,
                                                   uint32_t* pu32Height, uint32_t* pu32FrameRate)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetVideoPjPhS0_S_S_S_");

/**
 * Sets the audio source of an open slot and opens it. Call it before SCREENRECORD_SetTsMux.
 * @param pu32Handle   slot, 0 or 1
 * @param pu8SrcName   "cap" for the sound that the device plays, or the name of a file, which is
 *     opened but never read
 * @param pu8AencType  codec: NULL, "", "auto", "default" or "aac"; "mp3" only with "cap", and
 *     nothing is captured then
 * @param pu32BitWidth bits per sample; NULL or 0 = 16. Stored, with no further effect
 * @return 1 on success; 0 on failure. A failure closes the slot, unless the handle was bad, the
 *     slot was running, or the name was NULL
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetAudio(uint32_t* pu32Handle, uint8_t* pu8SrcName,
                                                   uint8_t* pu8AencType, uint32_t* pu32BitWidth)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetAudioPjPhS0_S_");

/**
 * Opens the multiplexer of a slot with a video or an audio source. Call it last before
 * SCREENRECORD_Start.
 * @param pu32Handle        slot, 0 or 1
 * @param pu32TsPacketSize  bytes: 192 (a 4-byte arrival time stamp ahead of each packet); any other
 *     value = 188; NULL = 192
 * @param pu32CbrBitrateMb  constant bit rate in units of 1048576 bit/s, at most 4; NULL or 0 =
 *     variable. The writer moves at most 64 KiB every 100 ms; a higher rate loses the excess
 * @return 1 on success; 0 on failure. A failure closes the slot, unless the handle was bad, the
 *     slot was running, or it had no source
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetTsMux(uint32_t* pu32Handle, uint32_t* pu32TsPacketSize,
                                                   uint32_t* pu32CbrBitrateMb)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetTsMuxPjS_S_");

/**
 * Starts a configured slot. On a running slot, starts the modules that do not run yet.
 * @param pu32Handle slot, 0 or 1
 * @return 1 if the slot records; 0 on failure. A module that fails to start closes the slot
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Start(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z18SCREENRECORD_StartPj");

/**
 * Stops the capture and the encoder of a slot. The multiplexer keeps writing its remaining data
 * until the slot is closed.
 * @param pu32Handle slot, 0 or 1
 * @return 1 on success, and if nothing was running; 0 on failure
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Stop(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_StopPj");

/**
 * Stops a slot, writes the remaining data, and closes its modules and its file. Does nothing on a
 * closed slot. The writer makes one last copy of at most 64 KiB; if the multiplexer has more than
 * that (the disk was stalled until now), the rest is lost.
 * @param pu32Handle slot, 0 or 1
 * @return 1 if the stop and the close of the file succeeded; 0 otherwise. The slot is closed in
 *     both cases, unless the handle was bad or the library was not initialised
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Close(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z18SCREENRECORD_ClosePj");

#ifdef __cplusplus

namespace android {
class WatermarkParams;
}

extern "C" {

/**
 * Sets or changes the watermark of the capture-encode interface. Call it after video_capenc_open;
 * allowed while the pipeline runs. The watermark is drawn only if the capture writes directly into
 * the encoder's buffer. video_capenc_stop removes it. video_capenc_close does not: stop before you
 * close; otherwise a watermark set in a later session is accepted but never drawn.
 * @param watermark copied; the copy shares the picture. The type is declared in
 *     srglworker/SrGlWorker.h of the platform contract, which CMake finds with
 *     find_package(screenrecord COMPONENTS contract)
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int video_capenc_setWatermark(const android::WatermarkParams& watermark);

#endif

/**
 * Records the screen and its sound to a transport-stream file, on slot 0. Equal to
 * SCREENRECORD_Init, _Open, _SetAudio, _SetVideo, _SetTsMux and _Start.
 * @param u32Width        pixels, 0 = 640
 * @param u32Height       lines, 0 = 480
 * @param u32FrameRate    frames per second, 0 = 30
 * @param u32CbrBitrateMb constant bit rate in units of 1048576 bit/s, at most 4; 0 = variable
 * @param u32TsPacketSize bytes: 192; any other value = 188
 * @param u32RecordTime   time limit in seconds, 0 = none. The recording ends when more than this
 *     many whole seconds have passed; data that has not reached the file by then is lost
 *     (stopScreenRecord loses nothing). The limit belongs to the process: a recording on slot 1
 *     ends at it too. It stays set until stopScreenRecord succeeds or this function is called again
 * @param u8VencType      0 = H.264; any other value is refused
 * @param pu8FileName     NUL-terminated name of the output file
 * @return 0 if the recording runs, -1 on failure
 */
SCREENRECORD_EXPORT int32_t startScreenRecord(uint32_t u32Width, uint32_t u32Height,
                                              uint32_t u32FrameRate, uint32_t u32CbrBitrateMb,
                                              uint32_t u32TsPacketSize, uint32_t u32RecordTime,
                                              uint8_t u8VencType, uint8_t* pu8FileName);

/**
 * Stops and closes slot 0, no matter which call opened it. Safe to call after the time limit has
 * ended the recording.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t stopScreenRecord(void);

/** Parameters of video_capenc_open. */
typedef struct CapEnc_OpenParams {
    /** pixels; rounded up to a multiple of 16, written back */
    uint32_t width;
    /** lines; rounded up to a multiple of 32, written back */
    uint32_t height;
    /** frames per second */
    uint32_t frameRate;
    /** bit/s */
    uint32_t outputBitrate;
    /** 1 = Baseline, 2 = Main; any other value leaves the choice to the encoder */
    uint32_t profile;
    /**
     * one bit per level: 0x1 = 1, 0x2 = 1b, 0x4 = 1.1 ... 0x1000 = 4.1; any other value leaves the
     * choice to the encoder
     */
    uint32_t level;
    /** low byte other than 0 = include the on-screen-display layer */
    uint32_t osd;
} CapEnc_OpenParams;

/** Description of a frame from video_capenc_getES. */
typedef struct CapEnc_EsInfo {
    /** 1 if the encoder's frame type code is 0 */
    uint8_t bTypeZero;
    /** 1 = IDR access unit; decoding can start here */
    uint8_t bKeyFrame;
    /**
     * capture time, microseconds of the monotonic clock. A key frame has the time of the latest
     * captured picture, which may be newer than the frame; the next frame then has the same or an
     * earlier time
     */
    uint64_t u64Pts;
    /** bytes; 0 = no frame was ready, and the other fields are unchanged */
    uint64_t u64DataSize;
} CapEnc_EsInfo;

/**
 * Opens the capture-encode pipeline on slot 0. The slot's capture and encoder must be closed.
 * @param params not NULL; width and height are rounded in place
 * @return 0 on success, -1 on failure. After a failure, video_capenc_close releases the remains. Do
 *     not call it if the failure was that the capture or encoder was already open: it would close
 *     the other user's
 */
SCREENRECORD_EXPORT int32_t video_capenc_open(CapEnc_OpenParams* params);

/**
 * Starts the opened pipeline.
 * @param startTimeUs microseconds of the monotonic clock; pictures captured earlier are dropped;
 *     0 = drop none
 * @return 0 on success; -1 on failure. The pipeline is then stopped and closed, unless only the
 *     watermark renderer refused
 */
SCREENRECORD_EXPORT int32_t video_capenc_start(int64_t startTimeUs);

/**
 * Stops the pipeline and removes its watermark. Frames that are ready can still be fetched.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t video_capenc_stop(void);

/**
 * Closes the pipeline and frees its buffers. Allowed in any state.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t video_capenc_close(void);

/**
 * Drops captured pictures until video_capenc_resume or the next video_capenc_open. The pause
 * outlives video_capenc_close and also affects a later recording on slot 0: resume first.
 * @return 0
 */
SCREENRECORD_EXPORT int32_t video_capenc_pause(void);

/**
 * Ends a pause. The first new frame after those already buffered is a key frame.
 * @return 0
 */
SCREENRECORD_EXPORT int32_t video_capenc_resume(void);

/**
 * Changes the bit rate of the open encoder.
 * @param u32BitRate bit/s
 * @return 0 on success; -1 if the encoder is not open or refuses the rate
 */
SCREENRECORD_EXPORT int32_t video_capenc_setBitRate(uint32_t u32BitRate);

/**
 * Copies out and removes the oldest buffered frame: one whole access unit (ISO/IEC 14496-10, Annex
 * B byte stream). The first frame is a key frame, and each key frame begins with its parameter
 * sets. Never waits for a frame. At most three frames are buffered; a caller that falls behind
 * loses the frames up to the next key frame.
 * @param buffer     receives the frame; not NULL
 * @param bufferSize bytes of `buffer`; video_capenc_getMaxEsSize() is always enough
 * @param info       not NULL; u64DataSize is 0 if no frame was ready
 * @return 0; -1 if the frame did not fit and was dropped, or if the lock was not obtained
 *     (u64DataSize is 0 then)
 */
SCREENRECORD_EXPORT int32_t video_capenc_getES(uint8_t* buffer, uint64_t bufferSize,
                                               CapEnc_EsInfo* info);

/** @return the largest frame that video_capenc_getES can return, in bytes */
SCREENRECORD_EXPORT uint32_t video_capenc_getMaxEsSize(void);

/**
 * Requests a key frame. Buffered frames ahead of the next key frame are dropped.
 * @return 0
 */
SCREENRECORD_EXPORT int32_t video_capenc_requestKeyFrame(void);

/** Picture formats of the still-frame interface. */
typedef enum Cap_OutputFmt_e {
    /** packed 4:2:2, 2 bytes a pixel */
    E_CAP_OUTPUT_FMT_YUYV = 0,
    /** 2 bytes a pixel, little-endian */
    E_CAP_OUTPUT_FMT_RGB565 = 1,
    /** 4 bytes a pixel, blue first in memory */
    E_CAP_OUTPUT_FMT_BGRA = 2,
    /** 4:2:0: luma plane, then an interleaved CbCr plane */
    E_CAP_OUTPUT_FMT_NV12 = 3
} Cap_OutputFmt_e;

/** Parameters of video_cap_open. */
typedef struct Cap_OpenParams {
    /** pixels, 0 = 640 */
    uint32_t width;
    /** lines, 0 = 480 */
    uint32_t height;
    /** Cap_OutputFmt_e */
    uint32_t colorfmt;
    /** low byte other than 0 = include the on-screen-display layer */
    uint32_t withosd;
    /** number of frame buffers, 1 or more */
    int32_t buffer_number;
} Cap_OpenParams;

/** A frame buffer. Array entries from planeCount on are unchanged. */
typedef struct Cap_Buffer {
    /** descriptor to map the plane with; owned by the library, valid until video_cap_close */
    int32_t fd[3];
    /** start of the plane in the descriptor's memory, bytes */
    uint32_t offset[3];
    /** bytes of the plane; of the whole buffer if planeCount is 1 */
    uint64_t size[3];
    /** 1, or 2 for NV12 */
    uint32_t planeCount;
    /** pixels */
    uint32_t width;
    /** lines */
    uint32_t height;
    /** bytes per line; NV12: of both planes together, width x 3 / 2 */
    uint32_t pitch;
    /** Cap_OutputFmt_e */
    uint32_t format;
    /** unchanged */
    uint32_t reserved;
} Cap_Buffer;

/**
 * Opens still-frame capture on slot 0 and allocates the buffers. The slot's capture must be closed.
 * @param params not NULL
 * @return 0 on success, and if only the buffers could not be allocated (video_cap_getCaptureBuffers
 *     fails then); -1 on failure. An unknown format leaves the device open: call video_cap_close
 */
SCREENRECORD_EXPORT int32_t video_cap_open(Cap_OpenParams* params);

/**
 * Describes the buffers.
 * @param buffers array of `count` entries
 * @param count   buffer_number of video_cap_open
 * @return 0 on success; -1 if `count` differs or there are no buffers
 */
SCREENRECORD_EXPORT int32_t video_cap_getCaptureBuffers(Cap_Buffer* buffers, uint32_t count);

/**
 * Captures the current screen into a buffer. Blocks until the picture is complete.
 * @param index buffer, 0 to buffer_number - 1
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t video_cap_captureScreen(int32_t index);

/**
 * Frees the buffers and closes the device. Existing mappings stay valid; the descriptor does not.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t video_cap_close(void);

/** PCM format. */
typedef struct AudioCap_Info {
    /** recommended read size in bytes, 12288 */
    uint64_t u64BufSize;
    /** 2, interleaved */
    uint32_t u32Channels;
    /** samples per second per channel, 48000 */
    uint64_t u64SampleRate;
    /** 1 = 16 bits, little-endian */
    uint32_t u32SampleFormat;
} AudioCap_Info;

/**
 * Opens PCM capture on slot 0. The slot's audio capture must be closed.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t audio_cap_open(void);
/**
 * Starts PCM capture. The first sample is that of the start, and sample n follows n / 48000 s
 * later. Samples have no time stamps: to know their time, read the monotonic clock just before the
 * call.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t audio_cap_start(void);
/** Stops PCM capture. @return 0 on success, -1 on failure */
SCREENRECORD_EXPORT int32_t audio_cap_stop(void);
/**
 * Closes PCM capture. Allowed in any state.
 * @return 0 on success, and if it was not open; -1 on failure
 */
SCREENRECORD_EXPORT int32_t audio_cap_close(void);
/** Describes the PCM format. @param info not NULL @return 0 */
SCREENRECORD_EXPORT int32_t audio_cap_getInfo(AudioCap_Info* info);
/** @return 0: lost sound is not counted */
SCREENRECORD_EXPORT uint64_t audio_cap_getLostSize(void);
/**
 * Reads PCM if at least `bufSize` bytes are available. Never waits.
 * @param buffer  receives the samples; not NULL
 * @param bufSize bytes of `buffer`
 * @param pSize   receives the number of bytes read; 0 if fewer than `bufSize` are available;
 *     unchanged if the device fails to read
 * @return 0; -1 if PCM capture is not open or the fill level is unknown
 */
SCREENRECORD_EXPORT int32_t audio_cap_getPCM(uint8_t* buffer, uint64_t bufSize, uint64_t* pSize);

#ifdef __cplusplus
}
#endif

#endif
