#pragma once
// Log library: configuration record, log stream and its byte count. The
// daemon's rule for writing lines lives in core/log_rule.h.
#include <cstdint>
#include <cstdio>

#include "platform/ipc.h"

// Words of vk_log_conf_data.
inline constexpr int VK_LOG_W_VERSION = 0;
inline constexpr int VK_LOG_W_LEVEL = 2;  // signed
inline constexpr int VK_LOG_W_ECHO = 3;
inline constexpr int VK_LOG_W_MAXSIZE = 5;  // unsigned bytes
inline constexpr int VK_LOG_CONF_WORDS = 6;
inline constexpr uint32_t VK_LOG_DEFAULT_MAXSIZE = 1048576;
// Notable events, no per-datagram traces.
inline constexpr int32_t VK_LOG_DEFAULT_LEVEL = 3;

// The record's words at process start.
inline constexpr int32_t VK_LOG_CONF_START[VK_LOG_CONF_WORDS] = {1, 0, VK_LOG_DEFAULT_LEVEL,
                                                                 0, 0, int32_t(VK_LOG_DEFAULT_MAXSIZE)};

extern int32_t vk_log_conf_data[VK_LOG_CONF_WORDS];
extern FILE *log_file_name;    // open log stream, or null
extern uint32_t cur_log_size;  // bytes written since the last rewind

// Sets the record (level $VK_LOG_LEVEL when set, else VK_LOG_DEFAULT_LEVEL;
// level is the most verbose one offered and is not used) and opens
// $VK_LOG_DIR/<module in lower case>.log under an exclusive advisory lock.
// A non-empty log of an earlier run is kept as <file>.1 first. When another
// live process holds the lock, both files are left untouched and the caller
// runs without a log file, as it does when the file cannot be opened.
void VK_LOG_INIT(const char *module, int level, int echo);
// Closes the log file and opens the same path anew, appending, under the lock
// (after an outside tool moved the old file away). 0, or -1 without a file.
int VK_LOG_REOPEN(void);
// Back to the state at process start, closing nothing: the stream is its
// opener's to close, and the path kept for a reopen is forgotten. For a
// process that starts the daemon again (tests, fuzz targets, simulation).
void VK_LOG_RESET(void);
// Fills msg->len (24) and the payload with the six words, host order.
void VK_LOG_GET_CFG(vk_ipc_msg_t *msg);
// Installs words 2, 3 and 5 of a 24-byte payload in the same form.
void VK_LOG_SET_CFG(const uint8_t *payload);
inline constexpr uint32_t VK_LOG_CFG_LEN = 4 * VK_LOG_CONF_WORDS;
