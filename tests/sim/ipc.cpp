// In-memory local IPC. Every send is captured, and delivered to an endpoint
// open at its path within its queue length and the sending socket's budget.
// Notifications go from a sending socket per destination, as on the device.
#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/ipc.h"
#include "tests/sim/world.h"

namespace sim {
namespace {

// 0, or the real service's errno for a path field with no NUL or an empty one.
int path_text(const char (&field)[VK_IPC_PATH_MAX], std::string &out) {
    const char *end = std::find(field, field + VK_IPC_PATH_MAX, '\0');
    if (end == field + VK_IPC_PATH_MAX) return ENAMETOOLONG;
    out.assign(field, end);
    return out.empty() ? EINVAL : 0;
}

const Socket *ipc_socket(const vk_ipc_handle_t *h) {
    const Socket *s = find_socket(h->sock);
    return s && s->ipc ? s : nullptr;
}

void queue_for(const std::string &to, std::vector<uint8_t> bytes, const std::string &sender, int from = -1) {
    if (Socket *s = find_socket(ipc_fd_of(to))) push_input(*s, Pending{0, std::move(bytes), 0, 0, sender, from});
}

// The sending socket of handle fd own for peer, made on first use; -1 with errno.
int peer_sock(int own, const std::string &peer) {
    for (const auto &[fd, s] : world().sockets)
        if (s.ipc && s.owner == own && s.peer == peer) return fd;
    return open_socket(Socket{.ipc = true, .owner = own, .peer = peer});
}

int send(vk_ipc_send_desc_t *d, bool resp) {
    // Checks in the real service's order, so a refusal gives the same errno.
    if (!d || !d->handle || !d->msg) return fail(EINVAL);
    const vk_ipc_msg_t &m = *d->msg;
    if (m.len > VK_IPC_PAYLOAD_MAX) return fail(EMSGSIZE);
    std::string peer;
    if (int err = path_text(d->peer, peer)) return fail(err);
    const Socket *own = ipc_socket(d->handle);
    if (!own) return fail(EBADF);
    World &w = world();
    w.ipc_sent.push_back(IpcSent{w.now_us, d->kind, peer, m.type, m.len, m.flags,
                                 std::vector<uint8_t>(m.payload, m.payload + m.len), false, false, false});
    IpcSent &rec = w.ipc_sent.back();
    if (w.ipc_missing[peer]) return fail(ENOENT);
    rec.full = w.ipc_full[peer];
    if (rec.full) return fail(EAGAIN);
    const int from = resp ? d->handle->sock : peer_sock(d->handle->sock, peer);
    if (from < 0) return -1;
    rec.full = !has_room(from, peer);
    if (rec.full) {
        for (const auto &[fd, o] : w.sockets)
            if (o.path != peer)
                for (const Pending &p : o.input) rec.held_by_other = rec.held_by_other || p.charged_to == from;
        return fail(EAGAIN);
    }
    rec.delivered = true;
    const auto *raw = reinterpret_cast<const uint8_t *>(&m);
    queue_for(peer, std::vector<uint8_t>(raw, raw + VK_IPC_HDR_LEN + m.len), own->path, from);
    return 0;
}

}  // namespace

const std::vector<IpcSent> &ipc_sent() { return world().ipc_sent; }
void ipc_clear_sent() { world().ipc_sent.clear(); }

void ipc_inject(uint32_t type, uint32_t flags, std::span<const uint8_t> payload, const std::string &sender,
                const std::string &to) {
    const uint32_t hdr[3] = {type, static_cast<uint32_t>(payload.size()), flags};
    std::vector<uint8_t> bytes(reinterpret_cast<const uint8_t *>(hdr), reinterpret_cast<const uint8_t *>(hdr + 3));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    queue_for(to, std::move(bytes), sender);
}

void ipc_inject_raw(std::vector<uint8_t> bytes, const std::string &sender, const std::string &to) {
    queue_for(to, std::move(bytes), sender);
}

void ipc_set_missing(const std::string &path, bool missing) { world().ipc_missing[path] = missing; }
void ipc_set_full(const std::string &path, bool full) { world().ipc_full[path] = full; }

void ipc_fail_open(int err) { world().ipc_fail_open = err; }

void ipc_set_queue_len(const std::string &path, std::size_t len) {
    if (Socket *s = find_socket(ipc_fd_of(path))) s->queue_len = len;
}

}  // namespace sim

using sim::fail;
using sim::world;

int vk_ipc_open(vk_ipc_handle_t *h) {
    if (!h) return fail(EINVAL);
    h->sock = -1;
    std::string path;
    if (int err = std::exchange(world().ipc_fail_open, 0)) return fail(err);
    if (int err = sim::path_text(h->path, path)) return fail(err);
    if (sim::ipc_fd_of(path) >= 0) return fail(EADDRINUSE);
    h->sock = sim::open_socket(sim::Socket{.ipc = true, .path = path});
    return h->sock < 0 ? -1 : 0;
}

void vk_ipc_close(vk_ipc_handle_t *h) {
    if (!h) return;
    if (sim::ipc_socket(h)) {
        std::vector<int> senders;
        for (const auto &[fd, o] : world().sockets)
            if (o.ipc && o.owner == h->sock) senders.push_back(fd);
        for (int fd : senders) sim::close_fd(fd);
        sim::close_fd(h->sock);
    }
    h->sock = -1;
}

// As the real service: a handle not in set, or nothing pending, gives 0 with
// *received 0; the sender is filled even for a refused datagram.
int vk_ipc_recv_large(fd_set *set, vk_ipc_recv_desc_t *rec, uint8_t *received) {
    if (!received) return fail(EINVAL);
    *received = 0;
    if (!rec || !rec->handle || !rec->msg) return fail(EINVAL);
    rec->sender[0] = '\0';
    const int fd = rec->handle->sock;
    sim::Socket *s = sim::find_socket(fd);
    if (!s || !s->ipc) return fail(EBADF);
    if (!set || !FD_ISSET(fd, set) || s->input.empty()) return 0;
    const sim::Pending p = std::move(s->input.front());
    s->input.pop_front();
    // The check sees the true size, so an oversized datagram is refused, not cut.
    if (!p.bytes.empty()) std::memcpy(rec->msg, p.bytes.data(), std::min(p.bytes.size(), VK_IPC_MSG_MAX));
    // A sender path too long for the field is handed out empty, as by the real one.
    if (p.sender.size() < VK_IPC_PATH_MAX) std::memcpy(rec->sender, p.sender.c_str(), p.sender.size() + 1);
    if (int err = vk_ipc_check_envelope(rec->msg, p.bytes.size())) return fail(err);
    *received = 1;
    return 0;
}

int vk_ipc_send_large(vk_ipc_send_desc_t *d) { return sim::send(d, false); }

int vk_ipc_resp_large(vk_ipc_send_desc_t *d) { return sim::send(d, true); }

int vk_ipc_send_sock(vk_ipc_handle_t *h, const char (&peer)[VK_IPC_PATH_MAX]) {
    if (!h) return fail(EINVAL);
    std::string p;
    if (int err = sim::path_text(peer, p)) return fail(err);
    return sim::ipc_socket(h) ? sim::peer_sock(h->sock, p) : fail(EBADF);
}
