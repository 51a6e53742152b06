#include "link/burst.h"

#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "core/log_rule.h"
#include "platform/os.h"

bool tovrin_sendmmsg_missing = false;
bool tovrin_recvmmsg_missing = false;

namespace {

// One datagram the old way, its pieces gathered into one buffer.
bool send_one(int sock, const mmsghdr &m) {
    uint8_t dgram[TOVRIN_MAX_DGRAM];
    std::size_t len = 0;
    const auto count = static_cast<std::size_t>(m.msg_hdr.msg_iovlen);  // int on musl, size_t on glibc
    for (std::size_t i = 0; i < count; ++i) {
        const iovec &v = m.msg_hdr.msg_iov[i];
        if (v.iov_len > sizeof dgram - len) return false;
        std::memcpy(dgram + len, v.iov_base, v.iov_len);
        len += v.iov_len;
    }
    return vk_os_sendto(sock, dgram, len, MSG_DONTWAIT, static_cast<const sockaddr *>(m.msg_hdr.msg_name),
                        m.msg_hdr.msg_namelen) >= 0;
}

}  // namespace

unsigned tovrin_send_burst(int sock, mmsghdr *msgs, unsigned n) {
    unsigned sent = 0;
    unsigned i = 0;
    while (i < n) {
        if (!tovrin_sendmmsg_missing) {
            const int r = vk_os_sendmmsg(sock, msgs + i, n - i, MSG_DONTWAIT);
            if (r >= 0 || errno != ENOSYS) {
                // The kernel stops a burst only at a datagram it cannot send:
                // that one is lost, as a failed single send is, and the rest go on.
                const unsigned done = r > 0 ? static_cast<unsigned>(r) : 0;
                sent += done;
                i += done + 1;
                continue;
            }
            tovrin_sendmmsg_missing = true;
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: no sendmmsg here, sending one datagram per call\n",
                       "tovrin_send_burst");
        }
        if (send_one(sock, msgs[i])) ++sent;
        ++i;
    }
    return sent;
}

int tovrin_recv_burst(int sock, mmsghdr *msgs, unsigned n) {
    if (!tovrin_recvmmsg_missing) {
        const int r = vk_os_recvmmsg(sock, msgs, n, MSG_DONTWAIT);
        if (r >= 0 || errno != ENOSYS) return r;
        tovrin_recvmmsg_missing = true;
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: no recvmmsg here, reading one datagram per wakeup\n",
                   "tovrin_recv_burst");
    }
    msghdr &h = msgs[0].msg_hdr;
    const ssize_t r = vk_os_recvfrom(sock, h.msg_iov[0].iov_base, h.msg_iov[0].iov_len, MSG_DONTWAIT,
                                     static_cast<sockaddr *>(h.msg_name), &h.msg_namelen);
    if (r < 0) return -1;
    msgs[0].msg_len = static_cast<unsigned>(r);
    return 1;
}
