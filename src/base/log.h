/** The library's log lines: tag, and the function's name and source line in front of every text. */
#ifndef SCREENRECORD_BASE_LOG_H
#define SCREENRECORD_BASE_LOG_H

#include <android/log.h>

#define SR_TAG "screenrecord"

/**
 * The name that helpers log under, for a scope of this thread: a check or a step that several
 * functions share reports under the function that it works for. A function opens the scope as
 * `const LogAs as(__func__);` before it calls a helper; the outer name returns with the end of the
 * scope.
 */
class LogAs {
public:
    explicit LogAs(const char* pName) : m_pOuter(_pName) { _pName = pName; }
    ~LogAs() { _pName = m_pOuter; }
    LogAs(const LogAs&) = delete;
    LogAs& operator=(const LogAs&) = delete;

    /** The innermost scope's name; empty outside of all. */
    static const char* Name() { return _pName; }

private:
    const char* const m_pOuter;
    inline static thread_local constinit const char* _pName = "";
};

#define SR_LOG(priority, name, format, ...)                                                        \
    __android_log_print(priority, SR_TAG, "[%s][%d]" format, name,                                 \
                        __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/**
 * The same for texts that begin with function and line once more: both numbers are one value, since
 * the compiler's differ within a call that stands over several lines.
 */
#define SR_LOG_LINE(priority, name, format, ...)                                                   \
    do {                                                                                           \
        const int s32Line = __LINE__;                                                              \
        __android_log_print(priority, SR_TAG, "[%s][%d]" format, name, s32Line, name,              \
                            s32Line __VA_OPT__(, ) __VA_ARGS__);                                   \
    } while (false)

/** Failures. */
#define SR_LOGE(format, ...) SR_LOG(ANDROID_LOG_ERROR, __func__, format __VA_OPT__(, ) __VA_ARGS__)
/** Progress, configured values and refusals of state. */
#define SR_LOGD(format, ...) SR_LOG(ANDROID_LOG_DEBUG, __func__, format __VA_OPT__(, ) __VA_ARGS__)
/** Either with function and line once more. */
#define SR_LOGE_LINE(format, ...)                                                                  \
    SR_LOG_LINE(ANDROID_LOG_ERROR, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define SR_LOGD_LINE(format, ...)                                                                  \
    SR_LOG_LINE(ANDROID_LOG_DEBUG, __func__, format __VA_OPT__(, ) __VA_ARGS__)

/** The same in a helper, under the name of the scope that it works in. */
#define SR_HELPER_LOGE(format, ...)                                                                \
    SR_LOG(ANDROID_LOG_ERROR, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)
#define SR_HELPER_LOGD(format, ...)                                                                \
    SR_LOG(ANDROID_LOG_DEBUG, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)
#define SR_HELPER_LOGE_LINE(format, ...)                                                           \
    SR_LOG_LINE(ANDROID_LOG_ERROR, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)

#endif
