#pragma once

#include <android/log.h>

/**
 * The host layer's own log lines, under the tag "zu3": sentences that say what happened and what to
 * do.
 */
#define HOST_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "zu3", __VA_ARGS__)
#define HOST_LOGW(...) __android_log_print(ANDROID_LOG_WARN, "zu3", __VA_ARGS__)
#define HOST_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "zu3", __VA_ARGS__)
#define HOST_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, "zu3", __VA_ARGS__)
