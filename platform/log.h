// Logging helpers over the Android log.
#ifndef VEXA_PLATFORM_LOG_H
#define VEXA_PLATFORM_LOG_H

#include "platform/android.h"

#define VEXA_LOGD(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define VEXA_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define VEXA_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define VEXA_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

#endif
