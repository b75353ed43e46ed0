/** The library's log lines: tag, function and source line before each text. */
#ifndef SCREENRECORD_BASE_LOG_H
#define SCREENRECORD_BASE_LOG_H

#include <android/log.h>

#define SR_TAG "screenrecord"

/**
 * Sets the function name that helpers log on this thread, for a scope: a helper that several
 * functions share logs the name of its caller. A function opens the scope with
 * `const LogAs as(__func__);` before it calls a helper. The end of the scope restores the outer
 * name.
 */
class LogAs {
public:
    explicit LogAs(const char* pName) : m_pOuter(_pName) { _pName = pName; }
    ~LogAs() { _pName = m_pOuter; }
    LogAs(const LogAs&) = delete;
    LogAs& operator=(const LogAs&) = delete;

    /** Name of the innermost scope; empty without a scope. */
    static const char* Name() { return _pName; }

private:
    const char* const m_pOuter;
    inline static thread_local constinit const char* _pName = "";
};

#define SR_LOG(priority, name, format, ...)                                                        \
    __android_log_print(priority, SR_TAG, "[%s][%d]" format, name,                                 \
                        __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/**
 * The same for texts that repeat function and line. Both line numbers are one value: __LINE__
 * differs within a call that spans several lines.
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
/** The same, for texts that repeat function and line. */
#define SR_LOGE_LINE(format, ...)                                                                  \
    SR_LOG_LINE(ANDROID_LOG_ERROR, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define SR_LOGD_LINE(format, ...)                                                                  \
    SR_LOG_LINE(ANDROID_LOG_DEBUG, __func__, format __VA_OPT__(, ) __VA_ARGS__)

/** The same in a helper, with the name of the current LogAs scope. */
#define SR_HELPER_LOGE(format, ...)                                                                \
    SR_LOG(ANDROID_LOG_ERROR, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)
#define SR_HELPER_LOGD(format, ...)                                                                \
    SR_LOG(ANDROID_LOG_DEBUG, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)
#define SR_HELPER_LOGE_LINE(format, ...)                                                           \
    SR_LOG_LINE(ANDROID_LOG_ERROR, LogAs::Name(), format __VA_OPT__(, ) __VA_ARGS__)

#endif
