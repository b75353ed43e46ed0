#pragma once

#include <android/log.h>

/**
 * Log lines of the host layer, with the tag "zu3": sentences with the event and the remedy.
 */
#define HOST_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "zu3", __VA_ARGS__)
#define HOST_LOGW(...) __android_log_print(ANDROID_LOG_WARN, "zu3", __VA_ARGS__)
#define HOST_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "zu3", __VA_ARGS__)
#define HOST_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, "zu3", __VA_ARGS__)
