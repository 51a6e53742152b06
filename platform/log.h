#pragma once
// Log library: configuration record, log stream and its byte count. The
// daemon's rule for writing lines lives in core/log_rule.h.
#include <cstdint>
#include <cstdio>

#include "platform/ipc.h"

// Words of vk_log_conf_data.
inline constexpr int VK_LOG_W_VERSION = 0;
inline constexpr int VK_LOG_W_LEVEL = 2;    // signed
inline constexpr int VK_LOG_W_ECHO = 3;
inline constexpr int VK_LOG_W_MAXSIZE = 5;  // unsigned bytes
inline constexpr int VK_LOG_CONF_WORDS = 6;
inline constexpr uint32_t VK_LOG_DEFAULT_MAXSIZE = 1048576;

extern int32_t vk_log_conf_data[VK_LOG_CONF_WORDS];
extern FILE *log_file_name;     // open log stream, or null
extern uint32_t cur_log_size;   // bytes written since the last rewind

// Sets the record (level from $VK_LOG_LEVEL when set) and opens
// $VK_LOG_DIR/<module in lower case>.log for writing; runs without a file
// when it cannot be opened.
void VK_LOG_INIT(const char *module, int level, int echo);
// Fills msg->len (24) and the payload with the six words, host order.
void VK_LOG_GET_CFG(vk_ipc_msg_t *msg);
// Installs words 2, 3 and 5 of a 24-byte payload in the same form.
void VK_LOG_SET_CFG(const uint8_t *payload);
inline constexpr uint32_t VK_LOG_CFG_LEN = 4 * VK_LOG_CONF_WORDS;
