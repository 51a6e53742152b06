#pragma once
// IPC type codes understood on "/vk/ipc/tovrin".
#include <cstdint>

inline constexpr char TOVRIN_IPC_PATH[] = "/vk/ipc/tovrin";
inline constexpr int TOVRIN_SYSMON_NUM = 80;

// Notifications.
inline constexpr uint32_t TOVRIN_IPC_SYSMON_HB = 13;
inline constexpr uint32_t TOVRIN_IPC_SYSTEM_READY = 16;
inline constexpr uint32_t TOVRIN_IPC_SYSTEM_READY2 = 17;
inline constexpr uint32_t TOVRIN_IPC_SET_LOG_CFG = 29;
inline constexpr uint32_t TOVRIN_IPC_KARATE = 121;
inline constexpr uint32_t TOVRIN_IPC_SEND_MSG = 122;
inline constexpr uint32_t TOVRIN_IPC_CFG_UPDATE = 124;
inline constexpr uint32_t TOVRIN_IPC_CTRL_IP = 149;
inline constexpr uint32_t TOVRIN_IPC_SET_KEY = 180;
inline constexpr uint32_t TOVRIN_IPC_SET_ENCRYPT = 181;
// Requests.
inline constexpr uint32_t TOVRIN_IPC_GET_LOG_CFG = 28;
inline constexpr uint32_t TOVRIN_IPC_DUMP = 68;
inline constexpr uint32_t TOVRIN_IPC_GET_DRAV = 120;
// The counters: the bytes of tovrin_counters_t (core/counters.h), host order.
// A code of its own, so no answer the daemon gave before changes.
inline constexpr uint32_t TOVRIN_IPC_GET_STATS = 190;

inline constexpr char TOVRIN_DUMP_FILE[] = "/tmp/tovrindumpfile";
