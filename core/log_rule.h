#pragma once
// The one logging rule of the daemon. The level test comes first and is a load
// and a compare, so disabled statements cost nearly nothing.
#include "platform/log.h"

// Log thresholds.
inline constexpr int TOVRIN_LOG_NOTE = 1;
inline constexpr int TOVRIN_LOG_INFO = 3;
inline constexpr int TOVRIN_LOG_DBG = 4;

// Writes one statement whose threshold has passed: a rewind when the file has
// grown past the maximum, the prefix ":<seconds>:<milliseconds>: ", the
// message, a flush, and the echo on standard output when it is on.
void tovrin_log_write(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#define TOVRIN_LOG(level, ...)                                                          \
    do {                                                                                \
        if (vk_log_conf_data[VK_LOG_W_LEVEL] >= (level)) tovrin_log_write(__VA_ARGS__); \
    } while (0)
