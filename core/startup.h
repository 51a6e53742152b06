#pragma once
// Start-up: the link record's start values, the daemon's IPC endpoint and its
// read callback.
#include "platform/ipc.h"

extern vk_ipc_handle_t tovrin_ipc;

// Start values of the link record and the keepalive rate table.
void tovrin_init_struct(void);
// The daemon's own start, as main() does it once the log and the event loop
// are set up: the send queue's bound (from queue_max_text, null for the
// default), the start values and the IPC endpoint. Returns the handshake's
// result; ends the process as tovrin_vk_ipc_init does.
int tovrin_start(const char *queue_max_text);
// Opens "/vk/ipc/tovrin", registers it with the event loop and greets the
// system monitor; returns the handshake's result. Ends the process with status
// 1 when the endpoint cannot be opened.
int tovrin_vk_ipc_init(void);
// Read callback of the IPC endpoint: one message per call.
void tovrin_handle_vk_ipc(int sock, void *eloop_ctx, void *sock_ctx);
// Hands a received message to the request or the notification dispatch.
int tovrin_proc_recv_ipc_msg(vk_ipc_recv_desc_t *rec);
