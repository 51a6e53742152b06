#pragma once
// Local IPC service: one Unix-domain datagram per message, under $VK_IPC_ROOT.
#include <sys/select.h>

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t VK_IPC_PATH_MAX = 64;    // endpoint path field, NUL included
inline constexpr std::size_t VK_IPC_HDR_LEN = 12;     // type, payload length, flags
inline constexpr std::size_t VK_IPC_MSG_MAX = 16400;  // whole envelope
inline constexpr std::size_t VK_IPC_PAYLOAD_MAX = VK_IPC_MSG_MAX - VK_IPC_HDR_LEN;

// Envelope flags.
inline constexpr uint32_t VK_IPC_F_NOTIFY = 0x1;
inline constexpr uint32_t VK_IPC_F_REQUEST = 0x2;
inline constexpr uint32_t VK_IPC_F_RESPONSE = 0x4;

// Kinds of vk_ipc_send_desc_t.
inline constexpr uint32_t VK_IPC_KIND_NOTIFY = 2;
inline constexpr uint32_t VK_IPC_KIND_RESP = 8;

// Endpoint handle. The owner writes path; vk_ipc_open fills sock.
struct vk_ipc_handle_t {
    char path[VK_IPC_PATH_MAX];
    int32_t sock;
    uint8_t lib[224];  // the library's own
};
static_assert(sizeof(vk_ipc_handle_t) == 292);

// The envelope, host byte order.
struct vk_ipc_msg_t {
    uint32_t type;
    uint32_t len;  // payload bytes
    uint32_t flags;
    uint8_t payload[VK_IPC_PAYLOAD_MAX];
};
static_assert(sizeof(vk_ipc_msg_t) == VK_IPC_MSG_MAX);

struct vk_ipc_recv_desc_t {
    vk_ipc_handle_t *handle;
    vk_ipc_msg_t *msg;             // caller's buffer, VK_IPC_MSG_MAX bytes
    char sender[VK_IPC_PATH_MAX];  // filled: sender's bound path without $VK_IPC_ROOT
};

struct vk_ipc_send_desc_t {
    vk_ipc_handle_t *handle;
    uint32_t kind;               // VK_IPC_KIND_NOTIFY or VK_IPC_KIND_RESP
    vk_ipc_msg_t *msg;           // sends VK_IPC_HDR_LEN + msg->len bytes
    char peer[VK_IPC_PATH_MAX];  // receiver's endpoint path, NUL-terminated
};

// Creates missing parent directories (0770), removes a stale socket file, refuses
// a live endpoint with EADDRINUSE, binds, sets mode 0660. 0, or -1 with errno.
int vk_ipc_open(vk_ipc_handle_t *h);
void vk_ipc_close(vk_ipc_handle_t *h);
// Reads one datagram from the handle's socket if its bit is in set. On success
// *received is 1 and msg->len equals exactly the payload bytes that arrived, so
// a caller can trust it. A datagram shorter than the envelope header, longer
// than VK_IPC_MSG_MAX, or whose length word disagrees with what arrived is
// consumed and refused: -1 with errno EBADMSG or EMSGSIZE, *received 0.
int vk_ipc_recv_large(fd_set *set, vk_ipc_recv_desc_t *rec, uint8_t *received);
// Non-blocking sends to peer; a missing or full peer gives -1 with errno.
// msg->len over VK_IPC_PAYLOAD_MAX gives -1 with EMSGSIZE.
// vk_ipc_send_large sends from a socket of the handle's own for that peer
// alone, so what waits in one receiver's queue never uses up the budget of
// sends to another; vk_ipc_resp_large from the handle's endpoint socket.
// Either way the receiver sees the handle's path as the sender.
int vk_ipc_send_large(vk_ipc_send_desc_t *d);
int vk_ipc_resp_large(vk_ipc_send_desc_t *d);
// The descriptor vk_ipc_send_large uses for peer (made, and connected, on
// first use; the handle owns it and closes it with itself): once it is
// writable a send refused with EAGAIN may succeed. -1 with errno.
int vk_ipc_send_sock(vk_ipc_handle_t *h, const char (&peer)[VK_IPC_PATH_MAX]);

// Shared by every implementation: checks a received datagram of n bytes held in
// msg. Returns 0 when it is a whole envelope, else the errno to refuse it with.
int vk_ipc_check_envelope(const vk_ipc_msg_t *msg, std::size_t n);
