#pragma once
// The IPC command dispatch: notifications act and answer nothing; every
// request gets exactly one response.
#include <cstdint>
#include <cstdio>

#include "platform/ipc.h"

// Notification dispatch by type code. msg->len is the payload size received.
int tovrin_proc_not(const vk_ipc_msg_t *msg, const char *sender);
// Request dispatch; returns the result of the response send.
int tovrin_proc_reqresp(const vk_ipc_msg_t *msg, const char *sender);
// Configuration update notice: prints a fixed console line.
void tovrin_proc_cfg_update(void);
// The dump operation: logs only, writes nothing into stream.
void tovrin_dump_all(FILE *stream);
// Stores a key from a set-key payload of len bytes; refuses a key longer than
// the key field or than the bytes received. 0 stored, -1 refused.
int tovrin_proc_set_key(const uint8_t *payload, uint32_t len);
// Stores the encryption state (1 encrypts new outgoing messages).
void tovrin_proc_set_encryption_state(int32_t state);
