#include "link/recv.h"

#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/burst.h"
#include "link/ctrl_dispatch.h"
#include "link/reassembly.h"
#include "link/record.h"
#include "link/send_queue.h"
#include "platform/os.h"

namespace {

// The receive burst's slots, filled by the kernel one per datagram: a lone
// datagram touches the first only. Set up once, at build time.
uint8_t rx_bufs[TOVRIN_RECV_BURST][TOVRIN_MAX_DGRAM];
sockaddr_in rx_from[TOVRIN_RECV_BURST];
constinit std::array<iovec, TOVRIN_RECV_BURST> rx_iov = [] {
    std::array<iovec, TOVRIN_RECV_BURST> a{};
    for (unsigned i = 0; i < TOVRIN_RECV_BURST; ++i) a[i] = iovec{rx_bufs[i], sizeof rx_bufs[i]};
    return a;
}();
constinit std::array<mmsghdr, TOVRIN_RECV_BURST> rx_msgs = [] {
    std::array<mmsghdr, TOVRIN_RECV_BURST> a{};
    for (unsigned i = 0; i < TOVRIN_RECV_BURST; ++i) {
        a[i].msg_hdr.msg_name = &rx_from[i];
        a[i].msg_hdr.msg_namelen = sizeof rx_from[i];
        a[i].msg_hdr.msg_iov = &rx_iov[i];
        a[i].msg_hdr.msg_iovlen = 1;
    }
    return a;
}();

// One datagram as read: n bytes at buf (cut to the buffer), from src.
void recv_one(int sock, const uint8_t *buf, ssize_t n, uint32_t src) {
    static constexpr const char *fn = "tovrin_recv_handler";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Receiving on fd %d\n", fn, sock);
    ++tovrin_counters.datagrams_in;
    if (n < static_cast<ssize_t>(TOVRIN_HDR_LEN)) {
        tovrin_refused(TOVRIN_REFUSED_SHORT_DATAGRAM);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Not able to read %d even the hdr %d, recv %d.\n", fn, sock,
                   static_cast<int>(TOVRIN_HDR_LEN), static_cast<int>(n));
        return;
    }
    const tovrin_hdr_t hdr = tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN>(buf, TOVRIN_HDR_LEN));
    if (hdr.hdr_len < TOVRIN_HDR_LEN) {
        tovrin_refused(TOVRIN_REFUSED_BAD_HEADER_LENGTH);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Dropping data on %d with hdr_len %d.\n", fn, sock, hdr.hdr_len);
        return;
    }
    if (hdr.data_len == 0) TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: Rcvd data on %d with len 0.\n", fn, sock);
    int avail = static_cast<int>(n) - hdr.hdr_len;
    if (avail < hdr.data_len) {
        tovrin_refused(TOVRIN_REFUSED_TRUNCATED);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Not able to recv on %d complete data length %d, %d.\n", fn, sock,
                   hdr.data_len, avail);
        return;
    }
    if (avail > hdr.data_len) {
        tovrin_refused(TOVRIN_REFUSED_TRAILING_BYTES);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: fd %d Probably trailing bits at the end %d.\n", fn, sock,
                   avail - hdr.data_len);
        return;
    }
    if (hdr.version != TOVRIN_VERSION) {
        tovrin_refused(TOVRIN_REFUSED_BAD_VERSION);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s:  fd %d Improper hdr version %d.\n", fn, sock, hdr.version);
        return;
    }
    if (hdr.magic != TOVRIN_MAGIC) {
        tovrin_refused(TOVRIN_REFUSED_BAD_MAGIC);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: fd %d Invalid magic number hdr version 0x%08x.\n", fn, sock, hdr.magic);
        return;
    }
    // A longer header than ours is honoured: the payload starts where the
    // sender says its header ends. hdr_len + data_len == n, so it stays inside buf.
    const uint8_t *payload = buf + hdr.hdr_len;
    tovrin_link_t &g = tovrin_gbl;

    if (hdr.flags & TOVRIN_F_CTRL) {
        if (src == g.drav_ip || (g.mob_ctrl_ip != 0 && src == g.mob_ctrl_ip)) {
            tovrin_recv_ctrl(&hdr, payload, hdr.data_len);
            TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Receiving Control Pkt\n", fn);
        } else {
            tovrin_refused(TOVRIN_REFUSED_CONTROL_FROM_STRANGER);
            TOVRIN_LOG(TOVRIN_LOG_DBG,
                       "DBG: <<%s: Ctrl msg on %d from wrong DRAV/Mobility Ctrl %u.%u.%u.%u Real DRAV "
                       "%u.%u.%u.%u Real Mobility ctrl %u.%u.%u.%u\n",
                       fn, sock, TOVRIN_IP_ARGS(src), TOVRIN_IP_ARGS(g.drav_ip), TOVRIN_IP_ARGS(g.mob_ctrl_ip));
        }
        return;
    }
    if (src != g.drav_ip) {
        tovrin_refused(TOVRIN_REFUSED_DATA_FROM_STRANGER);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Read on %d from wrong DRAV %u.%u.%u.%u Real DRAV %u.%u.%u.%u\n", fn,
                   sock, TOVRIN_IP_ARGS(src), TOVRIN_IP_ARGS(g.drav_ip));
        return;
    }
    if (hdr.flags & TOVRIN_F_ACK) {
        tovrin_recv_ack(&g, &hdr);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Processing ACK\n", fn);
        return;
    }
    if (tovrin_recv_frag(&g, &hdr, payload, hdr.data_len) != 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s Bad frag received from AP(%p) %u.%u.%u.%u\n", fn,
                   static_cast<void *>(&g), TOVRIN_IP_ARGS(g.drav_ip));
    } else if (hdr.flags & TOVRIN_F_MORE_FRAGS) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Receiving frag from AP(%p) %u.%u.%u.%u\n", fn, static_cast<void *>(&g),
                   TOVRIN_IP_ARGS(g.drav_ip));
    } else {
        tovrin_recv_data(&g);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Processed on fd %d AP(%p) %u.%u.%u.%u flags 0x%02x\n", fn, sock,
                   static_cast<void *>(&g), TOVRIN_IP_ARGS(g.drav_ip), hdr.flags);
    }
}

}  // namespace

void tovrin_recv_handler(int sock, void * /*eloop_ctx*/, void * /*sock_ctx*/) {
    const int got = tovrin_recv_burst(sock, rx_msgs.data(), TOVRIN_RECV_BURST);
    if (got < 0) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Receiving on fd %d\n", "tovrin_recv_handler", sock);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Failed to recv fd %d properly %d, errno %d.\n", "tovrin_recv_handler",
                   sock, got, errno);
        return;
    }
    // In arrival order, each as if it had had a wakeup of its own. Nothing on
    // this path closes the socket, but should it, what is left was the old
    // socket's, which closing would have discarded.
    for (int i = 0; i < got && tovrin_gbl.sock == sock; ++i) {
        recv_one(sock, rx_bufs[i], static_cast<ssize_t>(rx_msgs[i].msg_len), rx_from[i].sin_addr.s_addr);
    }
    // The kernel wrote each used slot's name length: ready for the next burst.
    for (int i = 0; i < got; ++i) rx_msgs[i].msg_hdr.msg_namelen = sizeof rx_from[i];
}
