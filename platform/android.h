// Android's log and system properties, as this library calls them. On the
// device they come from liblog and libcutils; on a host, from the virtual board.
#ifndef VEXA_PLATFORM_ANDROID_H
#define VEXA_PLATFORM_ANDROID_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
};

int __android_log_print(int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/* Copies the value (or default_value when unset) into value, which holds
 * PROPERTY_VALUE_MAX bytes; returns the length. */
int property_get(const char *key, char *value, const char *default_value);
int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif
