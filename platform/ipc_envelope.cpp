// The envelope check every IPC implementation applies to a received datagram.
#include <cerrno>

#include "platform/ipc.h"

// n is the datagram's real length (the receiver asks for it with MSG_TRUNC),
// so an oversize datagram is refused even though only VK_IPC_MSG_MAX arrived.
int vk_ipc_check_envelope(const vk_ipc_msg_t *msg, std::size_t n) {
    if (n > VK_IPC_MSG_MAX) return EMSGSIZE;
    if (n < VK_IPC_HDR_LEN) return EBADMSG;
    // The length word must tell exactly what arrived: callers trust msg->len.
    if (msg->len != n - VK_IPC_HDR_LEN) return EBADMSG;
    return 0;
}
