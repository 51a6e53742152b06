// System monitor notifications, sent through the simulated IPC like the real ones.
#include <cstring>

#include "platform/sysmon.h"

namespace {

int sysmon_send(vk_ipc_handle_t *h, uint32_t type, int num) {
    // One message for the process: a fresh 16 KB envelope per heartbeat was
    // most of what a simulated restart cost.
    static vk_ipc_msg_t m;
    vk_ipc_msg_t *msg = &m;
    msg->type = type;
    msg->len = sizeof(int32_t);
    msg->flags = VK_IPC_F_NOTIFY;
    const int32_t n = num;
    std::memcpy(msg->payload, &n, sizeof n);
    vk_ipc_send_desc_t d{};
    d.handle = h;
    d.kind = VK_IPC_KIND_NOTIFY;
    d.msg = msg;
    std::memcpy(d.peer, SYSMON_IPC_PATH, sizeof SYSMON_IPC_PATH);
    return vk_ipc_send_large(&d);
}

}  // namespace

int sysmon_send_handshake(vk_ipc_handle_t *h, int num) { return sysmon_send(h, SYSMON_IPC_HANDSHAKE, num); }

int sysmon_send_hb(vk_ipc_handle_t *h, int num) { return sysmon_send(h, SYSMON_IPC_HEARTBEAT, num); }
