#include "link/reassembly.h"

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/protect.h"
#include "platform/os.h"
#include "relay/app_msg.h"
#include "relay/backlog.h"
#include "relay/relay.h"

int tovrin_recv_frag(tovrin_link_t *link, const tovrin_hdr_t *hdr, const uint8_t *payload, int len) {
    static constexpr const char *fn = "tovrin_recv_frag";
    tovrin_comm_t &c = link->comm;
    const uint8_t f = hdr->frag, t = hdr->ctlr_trans, F = hdr->flags;
    const uint8_t last_frag = c.rx_hdr.frag, last_trans = c.rx_hdr.ctlr_trans;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received Seq %d Frag %d from Ctlr %u.%u.%u.%u - len %d\n", fn, t, f,
               TOVRIN_IP_ARGS(link->drav_ip), len);

    bool restart = false;
    if (!(F & TOVRIN_F_RETX) && f == 0) {
        restart = true;  // a new message; one still being assembled is abandoned
    } else if (t != last_trans) {
        if (f != 0) {
            tovrin_refused(TOVRIN_REFUSED_FRAGMENT_BEFORE_FIRST);
            TOVRIN_LOG(TOVRIN_LOG_NOTE,
                       "NOTE: <<<%s: Recv frag %d expecting 1st frag from Ctlr %u.%u.%u.%u Ctlr Trans %d\n", fn, f,
                       TOVRIN_IP_ARGS(link->drav_ip), t);
            return -1;
        }
        restart = true;  // first fragment of a resent message not seen before
    } else if (c.rx_hdr.flags & TOVRIN_F_MORE_FRAGS) {
        // After fragment 255 no number follows: 0 would be taken for a new start.
        if (last_frag == UINT8_MAX || f != last_frag + 1) {
            tovrin_refused(TOVRIN_REFUSED_FRAGMENT_OUT_OF_ORDER);
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: seq %d expected frag %d received %d from Ctlr %u.%u.%u.%u\n", fn,
                       t, last_frag + 1, f, TOVRIN_IP_ARGS(link->drav_ip));
            return -1;
        }
    } else if (c.rx_withheld && f == 0) {
        restart = true;  // the resend of a message left unacknowledged: taken anew
    } else {
        if ((F & TOVRIN_F_RETX) && f == 0 && (F & TOVRIN_F_ACK_REQ) && c.ack_hdr.ctlr_trans == t) {
            tovrin_refused(TOVRIN_REFUSED_MESSAGE_REPEATED);
            tovrin_send_ack(link, TOVRIN_F_RETX);
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Rtransmint ACK %d flags 0x%02x to %u.%u.%u.%u\n", fn, t, F,
                       TOVRIN_IP_ARGS(link->drav_ip));
            return -1;
        }
        // No transaction is expected once a message is complete; the number at
        // hand is the next fragment of the last one, as in the line above.
        tovrin_refused(TOVRIN_REFUSED_FRAGMENT_UNEXPECTED);
        TOVRIN_LOG(TOVRIN_LOG_NOTE,
                   "NOTE: <<%s: unexpected seq %d frag %d flags 0x%02x expected seq %d from ctlr %u.%u.%u.%u\n", fn, t,
                   f, F, last_frag + 1, TOVRIN_IP_ARGS(link->drav_ip));
        return -1;
    }

    const int base = restart ? 0 : c.rx_len;
    if (base + len > static_cast<int>(TOVRIN_MAX_PAYLOAD)) {
        tovrin_refused(TOVRIN_REFUSED_MESSAGE_TOO_BIG);
        TOVRIN_LOG(TOVRIN_LOG_NOTE,
                   "NOTE: <<%s: Packet too big Recv len %d data_len %d from  ctlr %u.%u.%u.%u AP Trans %d\n", fn, base,
                   len, TOVRIN_IP_ARGS(link->drav_ip), t);
        return -1;
    }
    c.rx_len = base;
    c.rx_hdr = *hdr;
    c.rx_withheld = 0;
    std::memcpy(c.rx_buf + c.rx_len, payload, static_cast<std::size_t>(len));
    c.rx_len += len;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Process msg %d from %u.%u.%u.%u\n", fn, t, TOVRIN_IP_ARGS(link->drav_ip));
    return 0;
}

void tovrin_send_ack(tovrin_link_t *link, uint8_t flags) {
    static constexpr const char *fn = "tovrin_send_ack";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s AP(%p) %u.%u.%u.%u - flags 0x%02x\n", fn, static_cast<void *>(link),
               TOVRIN_IP_ARGS(link->drav_ip), flags);
    tovrin_comm_t &c = link->comm;
    c.ack_hdr.flags = flags | TOVRIN_F_ACK;
    c.ack_hdr.frag = c.rx_hdr.frag;
    c.ack_hdr.ctlr_trans = c.rx_hdr.ctlr_trans;
    c.ack_hdr.data_len = 0;
    if (link->sock < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Failed to send, socket not open. AP(%p) %u.%u.%u.%u\n", fn,
                   static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
        return;
    }
    uint8_t wire[TOVRIN_HDR_LEN];
    tovrin_hdr_encode(c.ack_hdr, wire);
    if (vk_os_sendto(link->sock, wire, sizeof wire, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&link->peer_addr),
                     sizeof link->peer_addr) >= 0)
        ++tovrin_counters.datagrams_out;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
}

void tovrin_recv_data(tovrin_link_t *link) {
    static constexpr const char *fn = "tovrin_recv_data";
    tovrin_comm_t &c = link->comm;
    const int rx_len = c.rx_len;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received Data from AP(%p) %u.%u.%u.%u - len %d\n", fn,
               static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), rx_len);
    // Local endpoints so far behind that this message might not even wait
    // for them: it is not acknowledged, and marked so that the controller's
    // retransmission is taken as new rather than as a repeat of a message
    // delivered. Acknowledging it would lose it. rx_hdr stays as it is: it
    // goes out in every data datagram and must be a header that arrived.
    if ((c.rx_hdr.flags & TOVRIN_F_ACK_REQ) &&
        !tovrin_backlog_has_room(TOVRIN_APP_HDR_LEN + static_cast<std::size_t>(rx_len))) {
        tovrin_refused(TOVRIN_REFUSED_ENDPOINTS_BUSY);
        TOVRIN_LOG(TOVRIN_LOG_NOTE,
                   "NOTE: <<%s: Local endpoints busy, msg %d from %u.%u.%u.%u left to its retransmission\n", fn,
                   c.rx_hdr.ctlr_trans, TOVRIN_IP_ARGS(link->drav_ip));
        c.rx_len = 0;
        c.rx_withheld = 1;
        return;
    }
    if (c.rx_hdr.flags & TOVRIN_F_ACK_REQ) tovrin_send_ack(link, 0);

    // Fewer than 4 bytes hold no length field: bytes of an earlier message would be read.
    // Acknowledged from here on: a message refused below is one the controller
    // will not send again, so it counts as dropped.
    if (rx_len < 4) {
        tovrin_refused(TOVRIN_REFUSED_MESSAGE_TOO_SHORT);
        ++tovrin_counters.down_messages_dropped;
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Recvd frag %d from AP(%p) %u.%u.%u.%u too short %d\n", fn,
                   c.rx_hdr.frag, static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), rx_len);
        return;
    }
    const int hdr_len = tovrin_load16(c.rx_buf + TOVRIN_DOFF_LEN);
    if (rx_len != hdr_len) {
        tovrin_refused(TOVRIN_REFUSED_MESSAGE_LENGTH_MISMATCH);
        ++tovrin_counters.down_messages_dropped;
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Recvd frag %d from AP(%p) %u.%u.%u.%u but len do not match %d-%d\n",
                   fn, c.rx_hdr.frag, static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), rx_len, hdr_len);
        return;
    }
    const uint8_t type = c.rx_buf[TOVRIN_DOFF_TYPE];
    const uint8_t *data = nullptr;
    std::size_t n = 0;
    if (type == TOVRIN_DATA_ENC) {
        static uint8_t plain[TOVRIN_MAX_PAYLOAD];
        const char *why = nullptr;
        if (!tovrin_open_payload(c.rx_buf, static_cast<std::size_t>(rx_len), plain, &n, &why)) {
            tovrin_refused(why != nullptr ? TOVRIN_REFUSED_ENCRYPTED_MALFORMED : TOVRIN_REFUSED_BAD_DIGEST);
            ++tovrin_counters.down_messages_dropped;
            if (why != nullptr)
                TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Malformed encrypted msg %d (%s) from %u.%u.%u.%u\n", fn,
                           c.rx_hdr.ctlr_trans, why, TOVRIN_IP_ARGS(link->drav_ip));
            else
                TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Invalid checksum! Drop msg %d from %u.%u.%u.%u\n", fn,
                           c.rx_hdr.ctlr_trans, TOVRIN_IP_ARGS(link->drav_ip));
            return;
        }
        data = plain;
    } else if (type == TOVRIN_DATA_PLAIN) {
        if (rx_len < static_cast<int>(TOVRIN_PLAIN_HDR_LEN)) {
            tovrin_refused(TOVRIN_REFUSED_PLAIN_TOO_SHORT);
            ++tovrin_counters.down_messages_dropped;
            TOVRIN_LOG(TOVRIN_LOG_NOTE,
                       "NOTE: <<%s: Malformed plain msg %d (shorter than its header) from %u.%u.%u.%u\n", fn,
                       c.rx_hdr.ctlr_trans, TOVRIN_IP_ARGS(link->drav_ip));
            return;
        }
        data = c.rx_buf + TOVRIN_PLAIN_HDR_LEN;
        n = static_cast<std::size_t>(rx_len) - TOVRIN_PLAIN_HDR_LEN;
    } else {
        tovrin_refused(TOVRIN_REFUSED_UNKNOWN_DATA_TYPE);
        ++tovrin_counters.down_messages_dropped;
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Unsupported datatype %d Drop msg %d from %u.%u.%u.%u\n", fn, type,
                   c.rx_hdr.ctlr_trans, TOVRIN_IP_ARGS(link->drav_ip));
        return;
    }
    // Endpoints lie in the clear inner header in both forms.
    tovrin_handle_msg(link, static_cast<int32_t>(tovrin_load32(c.rx_buf + TOVRIN_DOFF_SRC)),
                      static_cast<int32_t>(tovrin_load32(c.rx_buf + TOVRIN_DOFF_DST)), data, n);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Process msg %d type(%d) from %u.%u.%u.%u\n", fn, c.rx_hdr.ctlr_trans, type,
               TOVRIN_IP_ARGS(link->drav_ip));
}
