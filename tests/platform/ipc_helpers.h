#pragma once
// Endpoints, raw datagram sockets and received messages for the IPC tests.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/ipc.h"

namespace platform_test {

// An endpoint opened through vk_ipc_open and closed on exit.
struct Endpoint {
    vk_ipc_handle_t h{};
    int rc = -1;
    int err = 0;
    explicit Endpoint(const std::string &path) {
        std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
        errno = 0;
        rc = vk_ipc_open(&h);
        err = errno;
    }
    ~Endpoint() {
        if (rc == 0) vk_ipc_close(&h);
    }
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;
};

// A plain datagram socket, bound only when given a file name.
struct RawSocket {
    int fd = -1;
    explicit RawSocket(const std::string &bind_to = {}) {
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (!bind_to.empty()) {
            const sockaddr_un a = addr(bind_to);
            bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a);
        }
    }
    ~RawSocket() {
        if (fd >= 0) close(fd);
    }
    RawSocket(const RawSocket &) = delete;
    RawSocket &operator=(const RawSocket &) = delete;

    static sockaddr_un addr(const std::string &file) {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", file.c_str());
        return a;
    }
    ssize_t send_to(const std::string &file, const std::vector<uint8_t> &bytes) const {
        const sockaddr_un a = addr(file);
        return sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&a), sizeof a);
    }
    std::vector<uint8_t> receive() const {
        std::vector<uint8_t> buf(VK_IPC_MSG_MAX + 100);
        const ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
        buf.resize(n > 0 ? std::size_t(n) : 0);
        return buf;
    }
};

// An envelope of raw bytes: header words in host order, then payload bytes.
inline std::vector<uint8_t> envelope(uint32_t type, uint32_t len_word, uint32_t flags, std::size_t payload_bytes) {
    std::vector<uint8_t> b(VK_IPC_HDR_LEN + payload_bytes, 0x5a);
    std::memcpy(b.data(), &type, 4);
    std::memcpy(b.data() + 4, &len_word, 4);
    std::memcpy(b.data() + 8, &flags, 4);
    return b;
}

struct Received {
    int rc = 0;
    int err = 0;
    uint8_t received = 0;
    std::string sender;
    uint32_t type = 0, len = 0, flags = 0;
    std::string payload;
};

// One vk_ipc_recv_large on the endpoint, with its bit set unless told otherwise.
inline Received receive(Endpoint &e, bool bit_set = true) {
    auto msg = std::make_unique<vk_ipc_msg_t>();
    vk_ipc_recv_desc_t rec{};
    rec.handle = &e.h;
    rec.msg = msg.get();
    std::memset(rec.sender, 'x', sizeof rec.sender);
    fd_set set;
    FD_ZERO(&set);
    if (bit_set) FD_SET(e.h.sock, &set);
    Received r;
    r.received = 9;  // must be overwritten either way
    errno = 0;
    r.rc = vk_ipc_recv_large(&set, &rec, &r.received);
    r.err = errno;
    r.sender = std::string(rec.sender, strnlen(rec.sender, sizeof rec.sender));
    if (r.received == 1) {
        r.type = msg->type;
        r.len = msg->len;
        r.flags = msg->flags;
        r.payload.assign(reinterpret_cast<const char *>(msg->payload), msg->len);
    }
    return r;
}

struct SendResult {
    int rc;
    int err;
};

// Sends type/flags/payload from the endpoint to peer with send_large, or resp_large.
inline SendResult send(Endpoint &from, const std::string &peer, uint32_t type, uint32_t flags,
                       const std::string &payload, bool as_response = false) {
    auto msg = std::make_unique<vk_ipc_msg_t>();
    msg->type = type;
    msg->len = uint32_t(payload.size());
    msg->flags = flags;
    std::memcpy(msg->payload, payload.data(), std::min(payload.size(), VK_IPC_PAYLOAD_MAX));
    vk_ipc_send_desc_t d{};
    d.handle = &from.h;
    d.kind = as_response ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY;
    d.msg = msg.get();
    std::snprintf(d.peer, sizeof d.peer, "%s", peer.c_str());
    errno = 0;
    const int rc = as_response ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
    return {rc, errno};
}

}  // namespace platform_test
