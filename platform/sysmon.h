#pragma once
// System monitor: IPC notifications to "/vk/ipc/sysmon" (type 1 handshake,
// 2 heartbeat answer; payload the 32-bit monitor number). Return the send's result.
#include "platform/ipc.h"

inline constexpr char SYSMON_IPC_PATH[] = "/vk/ipc/sysmon";
inline constexpr uint32_t SYSMON_IPC_HANDSHAKE = 1;
inline constexpr uint32_t SYSMON_IPC_HEARTBEAT = 2;

int sysmon_send_handshake(vk_ipc_handle_t *h, int num);
int sysmon_send_hb(vk_ipc_handle_t *h, int num);
