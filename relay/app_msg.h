#pragma once
// Application messages as exchanged over IPC with local daemons: an 84-byte
// header in host order followed by len data bytes.
#include <cstddef>
#include <cstdint>

#include "platform/ipc.h"

inline constexpr uint32_t TOVRIN_MSG_F_ACK_REQ = 0x100;
inline constexpr uint32_t TOVRIN_MSG_F_SYNC = 0x200;
inline constexpr uint32_t TOVRIN_MSG_F_FROM_CTRL = 0x10000;
inline constexpr uint32_t TOVRIN_MSG_F_FAILED = 0x1000000;
inline constexpr uint32_t TOVRIN_MSG_F_STATUS = 0x2000000;

inline constexpr std::size_t TOVRIN_APP_NAME_LEN = 64;

struct tovrin_app_msg_t {
    int32_t src_ep;
    char src_name[TOVRIN_APP_NAME_LEN];
    uint32_t id;
    uint32_t flags;
    int32_t dst_ep;
    uint32_t len;
    // len data bytes follow on the wire
};
inline constexpr std::size_t TOVRIN_APP_HDR_LEN = 84;
static_assert(sizeof(tovrin_app_msg_t) == TOVRIN_APP_HDR_LEN);
// Most data one IPC message can carry after the application header.
inline constexpr std::size_t TOVRIN_APP_MAX_DATA = VK_IPC_PAYLOAD_MAX - TOVRIN_APP_HDR_LEN;  // 16304

// IPC type code of every application message sent to a local endpoint.
inline constexpr uint32_t TOVRIN_IPC_APP_MSG = 123;
