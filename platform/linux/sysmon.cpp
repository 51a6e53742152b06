// System monitor notifications over local IPC.
#include "platform/sysmon.h"

#include <cstring>

namespace {

int notify_sysmon(vk_ipc_handle_t *h, uint32_t type, int num) {
    vk_ipc_msg_t msg;  // only the header and four payload bytes are sent
    msg.type = type;
    msg.len = sizeof(int32_t);
    msg.flags = VK_IPC_F_NOTIFY;
    const int32_t n = num;
    std::memcpy(msg.payload, &n, sizeof n);
    vk_ipc_send_desc_t d{};
    d.handle = h;
    d.kind = VK_IPC_KIND_NOTIFY;
    d.msg = &msg;
    static_assert(sizeof SYSMON_IPC_PATH <= sizeof d.peer);
    std::memcpy(d.peer, SYSMON_IPC_PATH, sizeof SYSMON_IPC_PATH);
    return vk_ipc_send_large(&d);
}

}  // namespace

int sysmon_send_handshake(vk_ipc_handle_t *h, int num) { return notify_sysmon(h, SYSMON_IPC_HANDSHAKE, num); }

int sysmon_send_hb(vk_ipc_handle_t *h, int num) { return notify_sysmon(h, SYSMON_IPC_HEARTBEAT, num); }
