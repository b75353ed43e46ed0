/**
 * screenrecord: captures the composed screen, encodes it as H.264 (ISO/IEC 14496-10) and either
 * multiplexes it into an MPEG transport-stream file (ISO/IEC 13818-1) or hands out the encoded
 * frames, screenshots or raw PCM.
 *
 * Five interfaces share two recording slots:
 *
 *  - SCREENRECORD_*            transport-stream recordings, step by step, on slot 0 or 1
 *  - startScreenRecord         the same on slot 0 with one call
 *  - video_capenc_*            encoded frames of the screen, on slot 0
 *  - video_cap_*               single pictures of the screen, on slot 0
 *  - audio_cap_*               raw PCM of what the device plays, on slot 0
 *
 * Use slot 0 for one of them at a time, and close it before the next. The three last refuse to open
 * a capture, encoder or audio capture that is open; a recording refuses a slot where something
 * runs, but takes one where something is merely open for its own, and forgets it. A
 * SCREENRECORD_Init or startScreenRecord that brings the library up, the first of a process or the
 * first after SCREENRECORD_DeInit, begins with empty slots, whatever is open in them.
 *
 * Threads: every function may be called from any thread; control calls (open, configure, start,
 * stop, close) exclude one another inside the library. Within a callback of the middleware only
 * video_capenc_pause, _resume and _getMaxEsSize and audio_cap_getPCM, _getInfo and _getLostSize may
 * be called. Media flows on threads of the middleware; once a close has returned, none of them
 * touches anything of the recording any more.
 *
 * A child of fork() has none of those threads, and locks of theirs may be held in it for ever. It
 * may call video_capenc_getMaxEsSize, audio_cap_getInfo and _getLostSize and nothing else, and ends
 * with exec or _exit.
 *
 * A dlclose does not unload the library, whatever runs.
 *
 * Why a call failed is said in the Android log under the tag "screenrecord".
 *
 * All of it can be used from C and from C++, but for video_capenc_setWatermark, which takes a C++
 * object. The SCREENRECORD_ functions have C++ names in the library; C finds them by those.
 */
#ifndef SCREENRECORD_SCREENRECORD_H
#define SCREENRECORD_SCREENRECORD_H

#include <stdint.h>

#define SCREENRECORD_EXPORT __attribute__((visibility("default")))

/**
 * The name that a C++ compiler gives to a function, for the C compiler, which would not make it.
 */
#ifdef __cplusplus
#define SCREENRECORD_CXX_NAME(name)
#else
#define SCREENRECORD_CXX_NAME(name) __asm__(name)
#endif

/**
 * Brings the library up: initialises the middleware's modules and reads their capabilities. Needed
 * once before the other SCREENRECORD_ functions; further calls do nothing.
 * @return 1 on success, 0 when a module could not be initialised (those that were are released
 *     again)
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Init(void)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_Initv");

/**
 * Closes both slots and releases the modules that SCREENRECORD_Init initialised. Always ends
 * uninitialised.
 * @return 1 when both slots closed well, else 0 (also when the library was not initialised)
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_DeInit(void)
    SCREENRECORD_CXX_NAME("_Z19SCREENRECORD_DeInitv");

/**
 * Opens a slot: resets it and creates the output file, truncating one that exists. The slot must be
 * closed; a slot whose modules run is refused.
 * @param pu32Handle slot, 0 or 1
 * @param pu8DstName NUL-terminated file name, copied; "wifi" is refused
 * @return 1 on success, 0 on failure (refused and nothing changed, or the slot is closed)
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Open(uint32_t* pu32Handle, uint8_t* pu8DstName)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_OpenPjPh");

/**
 * Chooses the video of an open slot and opens the encoder and its source. Before
 * SCREENRECORD_SetTsMux.
 * @param pu32Handle    slot, 0 or 1
 * @param pu8SrcName    "cap" for the screen, on slot 0 only: captured pictures always go to slot
 * 0's encoder, and a recording of slot 1 would stay without any; else the name of a raw NV12 file
 * (lines of the width rounded up to 16, the height rounded up to 32 lines, chroma behind them),
 * which is played once
 * @param pu8VencType   codec: NULL, "", "auto", "default" or "h264"
 * @param pu32Width     pixels, NULL or 0 = 640; at most what the encoder can
 * @param pu32Height    lines, NULL or 0 = 480; at most what the encoder can
 * @param pu32FrameRate frames per second, NULL or 0 = 30; at most what the encoder can
 * @return 1 on success, 0 on failure; a failure beyond a bad handle, a running slot or a NULL name
 * closes the slot
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetVideo(uint32_t* pu32Handle, uint8_t* pu8SrcName,
                                                   uint8_t* pu8VencType, uint32_t* pu32Width,
                                                   uint32_t* pu32Height, uint32_t* pu32FrameRate)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetVideoPjPhS0_S_S_S_");

/**
 * Chooses the audio of an open slot and opens its source. Before SCREENRECORD_SetTsMux.
 * @param pu32Handle   slot, 0 or 1
 * @param pu8SrcName   "cap" for what the device plays, else a file name (opened, but not read)
 * @param pu8AencType  codec: NULL, "", "auto", "default" or "aac"; "mp3" with "cap" only, and then
 * without capture
 * @param pu32BitWidth bits per sample, NULL or 0 = 16; stored only
 * @return 1 on success, 0 on failure; a failure beyond a bad handle, a running slot or a NULL name
 * closes the slot
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetAudio(uint32_t* pu32Handle, uint8_t* pu8SrcName,
                                                   uint8_t* pu8AencType, uint32_t* pu32BitWidth)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetAudioPjPhS0_S_");

/**
 * Opens the multiplexer of a slot whose video or audio is configured; the last step before
 * SCREENRECORD_Start.
 * @param pu32Handle        slot, 0 or 1
 * @param pu32TsPacketSize  192 for packets behind a 4-byte arrival time stamp, any other value 188;
 * NULL = 192
 * @param pu32CbrBitrateMb  constant rate in units of 1048576 bit/s; NULL or 0 = as much as the
 * content needs. Keep to 4 at most: the writer moves 64 KiB every 100 ms, and what a higher rate
 * brings beyond that is lost
 * @return 1 on success, 0 on failure; a failure beyond a bad handle, a running slot or a missing
 * source closes the slot
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_SetTsMux(uint32_t* pu32Handle, uint32_t* pu32TsPacketSize,
                                                   uint32_t* pu32CbrBitrateMb)
    SCREENRECORD_CXX_NAME("_Z21SCREENRECORD_SetTsMuxPjS_S_");

/**
 * Starts a configured slot. On a running slot it starts what does not run yet and succeeds.
 * @param pu32Handle slot, 0 or 1
 * @return 1 when the slot records, 0 on failure; a module that cannot be started closes the slot
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Start(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z18SCREENRECORD_StartPj");

/**
 * Stops capture and encoder of a slot. The multiplexer goes on writing what it holds until the slot
 * is closed.
 * @param pu32Handle slot, 0 or 1
 * @return 1 on success (also when nothing ran), 0 on failure
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Stop(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z17SCREENRECORD_StopPj");

/**
 * Stops a slot, writes what is left, closes everything that it holds and its file. Harmless on a
 * closed slot. The writer, which copies at most 64 KiB every 100 ms, makes one more copy: of a
 * multiplexer that holds more, as after a disk that stood still until now, the rest is lost.
 * @param pu32Handle slot, 0 or 1
 * @return 1 when the stop and the file's close succeeded, else 0; the slot is closed in either
 * case, unless the handle is bad or the library not initialised
 */
SCREENRECORD_EXPORT uint32_t SCREENRECORD_Close(uint32_t* pu32Handle)
    SCREENRECORD_CXX_NAME("_Z18SCREENRECORD_ClosePj");

#ifdef __cplusplus

namespace android {
class WatermarkParams;
}

extern "C" {

/**
 * Sets or changes the watermark of the capture-encode interface; after video_capenc_open, also
 * while it runs. It is drawn only where the capture writes into the encoder's own buffer.
 * video_capenc_stop removes it; video_capenc_close does not, so stop first: what a later session
 * sets is else accepted and not drawn.
 * @param watermark copied; its picture is shared, not copied. srglworker/SrGlWorker.h of the
 * platform contract declares it, which CMake finds with find_package(screenrecord COMPONENTS
 * contract)
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int video_capenc_setWatermark(const android::WatermarkParams& watermark);

#endif

/**
 * Records screen and sound into a transport-stream file on slot 0: Init, Open, SetAudio, SetVideo,
 * SetTsMux, Start.
 * @param u32Width       pixels, 0 = 640
 * @param u32Height      lines, 0 = 480
 * @param u32FrameRate   frames per second, 0 = 30
 * @param u32CbrBitrateMb constant rate in units of 1048576 bit/s, at most 4; 0 = as much as the
 *     content needs
 * @param u32TsPacketSize 192, any other value 188
 * @param u32RecordTime  the recording ends by itself once more than so many whole seconds have
 * passed; 0 = never. The limit is one for the process: slot 1's recording ends at it too, and it
 * holds until stopScreenRecord succeeds or the next call of this function. What was still on its
 * way to the file is lost then; stopScreenRecord loses nothing
 * @param u8VencType     0 = H.264; nothing else is accepted
 * @param pu8FileName    NUL-terminated output file name
 * @return 0 when the recording runs, -1 on failure
 */
SCREENRECORD_EXPORT int32_t startScreenRecord(uint32_t u32Width, uint32_t u32Height,
                                              uint32_t u32FrameRate, uint32_t u32CbrBitrateMb,
                                              uint32_t u32TsPacketSize, uint32_t u32RecordTime,
                                              uint8_t u8VencType, uint8_t* pu8FileName);

/**
 * Stops and closes slot 0, whoever opened it; also harmless after the time limit has done so.
 * @return 0 on success, -1 on failure
 */
SCREENRECORD_EXPORT int32_t stopScreenRecord(void);

/** What video_capenc_open is given. */
typedef struct CapEnc_OpenParams {
    /** pixels; rounded up to a multiple of 16, written back */
    uint32_t width;
    /** lines; rounded up to a multiple of 32, written back */
    uint32_t height;
    /** frames per second */
    uint32_t frameRate;
    /** bit/s */
    uint32_t outputBitrate;
    /** 1 = Baseline, 2 = Main; others leave it to the encoder */
    uint32_t profile;
    /**
     * one bit a level: 0x1 = 1, 0x2 = 1b, 0x4 = 1.1 ... 0x1000 = 4.1; others leave it to the
     * encoder
     */
    uint32_t level;
    /** low byte not 0 = with the on-screen-display layer */
    uint32_t osd;
} CapEnc_OpenParams;

/** What video_capenc_getES says of the frame that it took. */
typedef struct CapEnc_EsInfo {
    /** 1 when the encoder's frame type code is 0 */
    uint8_t bTypeZero;
    /** 1 = an IDR access unit, where decoding can start */
    uint8_t bKeyFrame;
    /** when the picture was captured, microseconds of the monotonic clock */
    uint64_t u64Pts;
    /** bytes of the frame; 0 = no frame was waiting, the other fields are untouched */
    uint64_t u64DataSize;
} CapEnc_EsInfo;

/**
 * Opens the capture-encode pipeline on slot 0, whose capture and encoder must be closed.
 * @param params not NULL; width and height come back rounded
 * @return 0 on success, -1 on failure. After a failure video_capenc_close releases what is left;
 * when the failure was that the capture or the encoder was open already, they are another's, and it
 * would close those.
 */
SCREENRECORD_EXPORT int32_t video_capenc_open(CapEnc_OpenParams* params);

/**
 * Starts the opened pipeline.
 * @param startTimeUs pictures captured before this time are dropped; microseconds of the monotonic
 * clock, 0 = none
 * @return 0 on success, -1 on failure (stopped and closed, except when only the watermark renderer
 *     refused)
 */
SCREENRECORD_EXPORT int32_t video_capenc_start(int64_t startTimeUs);

/**
 * Stops the pipeline and removes its watermark; frames that wait can still be taken. @return 0, -1
 * on failure
 */
SCREENRECORD_EXPORT int32_t video_capenc_stop(void);

/** Closes the pipeline from any state and frees its buffers. @return 0, -1 on failure */
SCREENRECORD_EXPORT int32_t video_capenc_close(void);

/**
 * Drops captured pictures until video_capenc_resume or the next video_capenc_open, also those of a
 * recording on slot 0 that is started after a close: end the pause first.
 * @return 0
 */
SCREENRECORD_EXPORT int32_t video_capenc_pause(void);

/** Ends a pause; behind the frames that wait already, the next one is a key frame. @return 0 */
SCREENRECORD_EXPORT int32_t video_capenc_resume(void);

/**
 * Changes the bit rate of the open encoder. @param u32BitRate bit/s @return 0, -1 without encoder
 * or when refused
 */
SCREENRECORD_EXPORT int32_t video_capenc_setBitRate(uint32_t u32BitRate);

/**
 * Takes the oldest waiting frame, one whole access unit (ISO/IEC 14496-10, Annex B); does not wait
 * for one. At most three frames wait; a caller that falls behind loses frames up to the next key
 * frame.
 * @param buffer     receives the frame; not NULL
 * @param bufferSize its size in bytes; video_capenc_getMaxEsSize() is always enough
 * @param info       not NULL; u64DataSize is 0 when no frame was waiting
 * @return 0; -1 when the frame did not fit and was dropped, or the lock was not obtained
 * (u64DataSize is 0 then)
 */
SCREENRECORD_EXPORT int32_t video_capenc_getES(uint8_t* buffer, uint64_t bufferSize,
                                               CapEnc_EsInfo* info);

/** The largest frame that video_capenc_getES hands out, in bytes. */
SCREENRECORD_EXPORT uint32_t video_capenc_getMaxEsSize(void);

/** Asks for a key frame: waiting frames before the next key frame are dropped. @return 0 */
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

/** What video_cap_open is given. */
typedef struct Cap_OpenParams {
    /** pixels, 0 = 640 */
    uint32_t width;
    /** lines, 0 = 480 */
    uint32_t height;
    /** Cap_OutputFmt_e */
    uint32_t colorfmt;
    /** low byte not 0 = with the on-screen-display layer */
    uint32_t withosd;
    /** frame buffers, 1 or more */
    int32_t buffer_number;
} Cap_OpenParams;

/**
 * One frame buffer, as video_cap_getCaptureBuffers describes it. Entries beyond planeCount are
 * untouched.
 */
typedef struct Cap_Buffer {
    int32_t
        /** descriptor to map each plane by; it stays the library's and is valid until the close */
        fd[3];
    /** byte of the descriptor's memory where the plane starts */
    uint32_t offset[3];
    /** bytes of the plane (of the whole buffer where there is one plane) */
    uint64_t size[3];
    /** 1, or 2 for NV12 */
    uint32_t planeCount;
    /** pixels */
    uint32_t width;
    /** lines */
    uint32_t height;
    /** bytes per line; for NV12 of both planes together, width x 3 / 2 */
    uint32_t pitch;
    /** Cap_OutputFmt_e */
    uint32_t format;
    /** untouched */
    uint32_t reserved;
} Cap_Buffer;

/**
 * Opens still-frame capture on slot 0, whose capture must be closed, and allocates the buffers.
 * @param params not NULL
 * @return 0 on success, also when the buffers could not be allocated (video_cap_getCaptureBuffers
 * then fails); -1 on failure. After a format that does not exist the device stays open: call
 * video_cap_close.
 */
SCREENRECORD_EXPORT int32_t video_cap_open(Cap_OpenParams* params);

/**
 * Describes the buffers.
 * @param buffers array of `count` entries
 * @param count   the number of buffers that was opened
 * @return 0, -1 when the count differs or there are no buffers
 */
SCREENRECORD_EXPORT int32_t video_cap_getCaptureBuffers(Cap_Buffer* buffers, uint32_t count);

/**
 * Captures what is on the screen now into buffer `index`; returns when it is there. @return 0, -1
 * on failure
 */
SCREENRECORD_EXPORT int32_t video_cap_captureScreen(int32_t index);

/**
 * Frees the buffers and closes the device. Their mappings stay valid, their descriptor does not.
 * @return 0 or -1
 */
SCREENRECORD_EXPORT int32_t video_cap_close(void);

/** What audio_cap_getInfo says. */
typedef struct AudioCap_Info {
    /** bytes worth reading at once, 12288 */
    uint64_t u64BufSize;
    /** 2, interleaved */
    uint32_t u32Channels;
    /** samples per second and channel, 48000 */
    uint64_t u64SampleRate;
    /** 1 = 16 bits, little-endian */
    uint32_t u32SampleFormat;
} AudioCap_Info;

/** Opens PCM capture on slot 0, whose audio capture must be closed. @return 0, -1 on failure */
SCREENRECORD_EXPORT int32_t audio_cap_open(void);
/** Starts PCM capture. @return 0, -1 on failure */
SCREENRECORD_EXPORT int32_t audio_cap_start(void);
/** Stops PCM capture. @return 0, -1 on failure */
SCREENRECORD_EXPORT int32_t audio_cap_stop(void);
/** Closes PCM capture from any state. @return 0 (also when it was not open), -1 on failure */
SCREENRECORD_EXPORT int32_t audio_cap_close(void);
/** Describes the PCM. @param info not NULL @return 0 */
SCREENRECORD_EXPORT int32_t audio_cap_getInfo(AudioCap_Info* info);
/** Bytes lost because nobody read them: not counted, always 0. */
SCREENRECORD_EXPORT uint64_t audio_cap_getLostSize(void);
/**
 * Reads PCM once a whole buffer's worth is waiting; does not wait for it.
 * @param buffer  receives the samples; not NULL
 * @param bufSize its size in bytes
 * @param pSize   receives the bytes delivered, 0 when less than `bufSize` is waiting; untouched
 * when the device fails to read
 * @return 0; -1 when PCM capture is not open or its level is unknown
 */
SCREENRECORD_EXPORT int32_t audio_cap_getPCM(uint8_t* buffer, uint64_t bufSize, uint64_t* pSize);

#ifdef __cplusplus
}
#endif

#endif
