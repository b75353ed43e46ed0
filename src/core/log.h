/** The library's log lines: tag, and the function's name and source line in front of every text. */
#ifndef SCREENRECORD_CORE_LOG_H
#define SCREENRECORD_CORE_LOG_H

#include <android/log.h>

#define SR_TAG "screenrecord"

/** Where a line comes from, for checks that several functions share and report under their callers' names. */
struct SCREENRECORD_Caller_s {
    const char* pName;
    int s32Line;
};
#define SR_HERE (SCREENRECORD_Caller_s{__func__, __LINE__})

#define SR_LOG_AS(priority, caller, format, ...)                                                             \
    __android_log_print(priority, SR_TAG, "[%s][%d]" format, (caller).pName,                                 \
                        (caller).s32Line __VA_OPT__(, ) __VA_ARGS__)

/** The same for texts that begin with function and line once more: both numbers are one value, since the
 * compiler's differ within a call that stands over several lines. */
#define SR_LOG_LINE_AS(priority, caller, format, ...)                                                        \
    do {                                                                                                     \
        const SCREENRECORD_Caller_s stLine = caller;                                                         \
        SR_LOG_AS(priority, stLine, format, stLine.pName, stLine.s32Line __VA_OPT__(, ) __VA_ARGS__);        \
    } while (false)

/** Failures. */
#define SR_LOGE(format, ...) SR_LOG_AS(ANDROID_LOG_ERROR, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)
/** Progress, configured values and refusals of state. */
#define SR_LOGD(format, ...) SR_LOG_AS(ANDROID_LOG_DEBUG, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)
/** Either with function and line once more. */
#define SR_LOGE_LINE(format, ...)                                                                            \
    SR_LOG_LINE_AS(ANDROID_LOG_ERROR, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)
#define SR_LOGD_LINE(format, ...)                                                                            \
    SR_LOG_LINE_AS(ANDROID_LOG_DEBUG, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)

#endif
