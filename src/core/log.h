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

/** Failures. */
#define SR_LOGE(format, ...) SR_LOG_AS(ANDROID_LOG_ERROR, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)
/** Progress, configured values and refusals of state. */
#define SR_LOGD(format, ...) SR_LOG_AS(ANDROID_LOG_DEBUG, SR_HERE, format __VA_OPT__(, ) __VA_ARGS__)

#endif
