// In-memory UDP: sends are captured, the test injects what the daemon receives.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/os.h"
#include "tests/sim/world.h"

namespace sim {
namespace {

// The UDP socket behind fd, or null with errno set as the kernel would.
Socket *udp_socket(int fd) {
    Socket *s = find_socket(fd);
    if (s && !s->ipc) return s;
    fail(s ? ENOTSOCK : EBADF);
    return nullptr;
}

Socket *udp_at_port(uint16_t port) {
    for (auto &[fd, s] : world().sockets)
        if (!s.ipc && s.port == port) return &s;
    return nullptr;
}

const sockaddr_in *inet_addr_of(const sockaddr *a, socklen_t len) {
    if (a && a->sa_family == AF_INET && len >= sizeof(sockaddr_in)) return reinterpret_cast<const sockaddr_in *>(a);
    fail(a && a->sa_family != AF_INET ? EAFNOSUPPORT : EINVAL);
    return nullptr;
}

}  // namespace

const std::vector<Datagram> &udp_sent() { return world().udp_sent; }
void udp_clear_sent() { world().udp_sent.clear(); }

void udp_inject(uint32_t from_ip_net, std::vector<uint8_t> bytes, uint16_t from_port) {
    if (Socket *s = udp_at_port(kLinkPort)) push_input(*s, Pending{0, std::move(bytes), from_ip_net, from_port, {}});
}

bool udp_open() {
    const auto &socks = world().sockets;
    return std::any_of(socks.begin(), socks.end(), [](const auto &e) { return !e.second.ipc; });
}

uint16_t udp_bound_port() {
    for (const auto &[fd, s] : world().sockets)
        if (!s.ipc && s.port != 0) return s.port;
    return 0;
}

void udp_fail_socket(int err) { world().udp_fail_socket = err; }
void udp_fail_bind(int err) { world().udp_fail_bind = err; }
void udp_burst_missing(bool missing) { world().udp_burst_missing = missing; }

}  // namespace sim

using sim::fail;
using sim::world;

int vk_os_socket(int domain, int type, int protocol) {
    if (int err = std::exchange(world().udp_fail_socket, 0)) return fail(err);
    if (domain != AF_INET) return fail(EAFNOSUPPORT);
    if ((type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != SOCK_DGRAM || (protocol != 0 && protocol != IPPROTO_UDP))
        return fail(EPROTONOSUPPORT);
    return sim::open_socket(sim::Socket{});
}

int vk_os_bind(int fd, const struct sockaddr *addr, socklen_t len) {
    sim::Socket *s = sim::udp_socket(fd);
    const sockaddr_in *in = s ? sim::inet_addr_of(addr, len) : nullptr;
    if (!in) return -1;
    if (int err = std::exchange(world().udp_fail_bind, 0)) return fail(err);
    if (s->port != 0) return fail(EINVAL);
    const uint16_t port = ntohs(in->sin_port);
    if (port != 0 && sim::udp_at_port(port)) return fail(EADDRINUSE);
    s->port = port;  // the daemon binds its port: no ephemeral one to hand out
    return 0;
}

// Never blocks: an empty socket gives EAGAIN. A datagram longer than len is
// cut to len and its rest lost, as on a real datagram socket.
ssize_t vk_os_recvfrom(int fd, void *buf, size_t len, int, struct sockaddr *from, socklen_t *fromlen) {
    sim::Socket *s = sim::udp_socket(fd);
    if (!s) return -1;
    if (s->input.empty()) return fail(EAGAIN);
    const sim::Pending p = std::move(s->input.front());
    s->input.pop_front();
    const size_t n = std::min(len, p.bytes.size());
    if (n > 0) std::memcpy(buf, p.bytes.data(), n);
    if (from && fromlen) {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        in.sin_port = htons(p.port);
        in.sin_addr.s_addr = p.ip;
        std::memcpy(from, &in, std::min<size_t>(*fromlen, sizeof in));
        *fromlen = sizeof in;
    }
    return static_cast<ssize_t>(n);
}

ssize_t vk_os_sendto(int fd, const void *buf, size_t len, int, const struct sockaddr *to, socklen_t tolen) {
    sim::Socket *s = sim::udp_socket(fd);
    const sockaddr_in *in = s ? sim::inet_addr_of(to, tolen) : nullptr;
    if (!in) return -1;
    const auto *b = static_cast<const uint8_t *>(buf);
    world().udp_sent.push_back(
        sim::Datagram{world().now_us, in->sin_addr.s_addr, ntohs(in->sin_port), std::vector<uint8_t>(b, b + len)});
    return static_cast<ssize_t>(len);
}

namespace {
// Bursts as the kernel does them: datagram after datagram, stopping at the
// first that fails (an error only when it is the first).
template <class One>
int burst(mmsghdr *msgs, unsigned int n, One one) {
    if (world().udp_burst_missing) return fail(ENOSYS);
    for (unsigned i = 0; i < n; ++i) {
        const ssize_t r = one(msgs[i].msg_hdr);
        if (r < 0) return i > 0 ? int(i) : -1;
        msgs[i].msg_len = static_cast<unsigned>(r);
    }
    return int(n);
}
}  // namespace

int vk_os_sendmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags) {
    return burst(msgs, n, [&](const msghdr &h) {
        std::vector<uint8_t> bytes;
        for (std::size_t k = 0; k < h.msg_iovlen; ++k) {
            const auto *b = static_cast<const uint8_t *>(h.msg_iov[k].iov_base);
            bytes.insert(bytes.end(), b, b + h.msg_iov[k].iov_len);
        }
        return vk_os_sendto(fd, bytes.data(), bytes.size(), flags, static_cast<const sockaddr *>(h.msg_name),
                            h.msg_namelen);
    });
}

// One buffer per datagram is all the daemon uses.
int vk_os_recvmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags) {
    return burst(msgs, n, [&](msghdr &h) {
        return h.msg_iovlen != 1 ? fail(EINVAL)
                                 : vk_os_recvfrom(fd, h.msg_iov[0].iov_base, h.msg_iov[0].iov_len, flags,
                                                  static_cast<sockaddr *>(h.msg_name), &h.msg_namelen);
    });
}

int vk_os_close(int fd) { return sim::close_fd(fd) ? 0 : fail(EBADF); }
