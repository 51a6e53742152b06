#include "link/send_queue.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/burst.h"
#include "link/protect.h"
#include "platform/eloop.h"
#include "platform/os.h"
#include "relay/relay.h"
#include "session/link_status.h"

int32_t tovrin_send_queue_max = TOVRIN_SEND_QUEUE_DEFAULT;
tovrin_msg_t *tovrin_spare_msg = nullptr;

namespace {
constexpr int kMaxRetry = 5;

void *retry_value(int n) { return reinterpret_cast<void *>(static_cast<intptr_t>(n)); }
}  // namespace

void tovrin_send_queue_configure(const char *text) {
    tovrin_send_queue_max = TOVRIN_SEND_QUEUE_DEFAULT;
    if (text == nullptr) return;
    char *end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 1 || v > TOVRIN_SEND_QUEUE_LIMIT) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: TOVRIN_SEND_QUEUE_MAX \"%.32s\" ignored, using %d\n",
                   "tovrin_send_queue_configure", text, TOVRIN_SEND_QUEUE_DEFAULT);
        return;
    }
    tovrin_send_queue_max = static_cast<int32_t>(v);
}

tovrin_msg_t *tovrin_new_send_msg(tovrin_link_t *link, const tovrin_app_msg_t *app, const uint8_t *data) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s New msg to AP(%p) %u.%u.%u.%u\n", "tovrin_new_send_msg",
               static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
    if (link->comm.msg_cnt >= tovrin_send_queue_max) {
        tovrin_refused(TOVRIN_REFUSED_APP_QUEUE_FULL);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s Send queue full (%d messages) for msg to AP(%p)%u.%u.%u.%u\n",
                   "tovrin_new_send_msg", link->comm.msg_cnt, static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
        return nullptr;
    }
    tovrin_msg_t *msg = tovrin_spare_msg;
    tovrin_spare_msg = nullptr;
    if (msg == nullptr) msg = static_cast<tovrin_msg_t *>(std::malloc(sizeof(tovrin_msg_t)));
    if (msg == nullptr) {
        tovrin_refused(TOVRIN_REFUSED_APP_NO_MEMORY);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s Out of memory for msg to AP(%p)%u.%u.%u.%u\n", "tovrin_new_send_msg",
                   static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
        return nullptr;
    }
    tovrin_comm_t &comm = link->comm;
    comm.tx_seq += 1;
    if ((comm.tx_seq & 0xff) == 0) comm.tx_seq = 1;
    msg->hdr = tovrin_hdr_make(TOVRIN_F_DATA | TOVRIN_F_ACK_REQ);
    msg->hdr.ap_trans = static_cast<uint8_t>(comm.tx_seq & 0xff);
    std::memcpy(&msg->app_hdr, app, TOVRIN_APP_HDR_LEN);
    tovrin_prepare_data(msg->data, &msg->data_len, app, data);

    comm.msg_cnt += 1;
    ++tovrin_counters.up_messages_accepted;
    if (uint64_t(comm.msg_cnt) > tovrin_counters.send_queue_high_water)
        tovrin_counters.send_queue_high_water = uint64_t(comm.msg_cnt);
    msg->next = nullptr;
    msg->prev = comm.tail;
    *comm.tail = msg;
    comm.tail = &msg->next;

    tovrin_tx_msg(link, 0);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Alloc msg %p for AP(%p) %u.%u.%u.%u\n", "tovrin_new_send_msg",
               static_cast<void *>(msg), static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
    return msg;
}

void tovrin_tx_msg(tovrin_link_t *link, int retry) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s AP(%p) - Retry %d\n", "tovrin_tx_msg", static_cast<void *>(link), retry);
    tovrin_comm_t &comm = link->comm;
    tovrin_msg_t *head = comm.head;
    if (head == nullptr) return;
    if (retry == 0 && comm.ack_wait == 1) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Queuing message to AP(%p) %u.%u.%u.%u - flags 0x%02x\n", "tovrin_tx_msg",
                   static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), head->hdr.flags);
        return;
    }
    // The retry cycle runs even with no socket, so a message never waits forever.
    if ((head->hdr.flags & TOVRIN_F_ACK_REQ) && comm.ack_wait == 0) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s Retry TOut for AP(%p) %u.%u.%u.%u\n", "tovrin_tx_msg",
                   static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
        vk_eloop_register_timeout(0, 1000000, tovrin_msg_retry, link, retry_value(1));
        comm.ack_wait = 1;
    }
    if (link->sock < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Failed to send, socket not open. AP(%p) %u.%u.%u.%u\n",
                   "tovrin_tx_msg", static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
        return;
    }
    if (retry != 0) head->hdr.flags |= TOVRIN_F_RETX;
    head->hdr.flags |= TOVRIN_F_DATA;
    head->hdr.ctlr_trans = comm.rx_hdr.ctlr_trans;

    const uint8_t *bytes = head->data;
    if (head->data[TOVRIN_DOFF_TYPE] == TOVRIN_DATA_ENC) {
        // Encrypted anew at every transmission from the plaintext the message keeps.
        static uint8_t scratch[TOVRIN_MAX_PAYLOAD];
        if (!tovrin_protect_payload(head->data, static_cast<std::size_t>(head->data_len), scratch)) {
            // Nothing valid to send: garbage after a clear header helps no one and
            // could carry stale bytes. The retry limit fails the message.
            return;
        }
        bytes = scratch;
    }

    if (retry != 0) ++tovrin_counters.retransmissions;
    // Each fragment is its own header (kept here) and a slice of the payload
    // (where the message keeps it): no copy, and all of them go to the kernel
    // in one call.
    uint8_t hdrs[TOVRIN_MAX_FRAGS][TOVRIN_HDR_LEN];
    iovec iov[TOVRIN_MAX_FRAGS][2];
    mmsghdr msgs[TOVRIN_MAX_FRAGS];
    std::size_t total = static_cast<std::size_t>(head->data_len);
    std::size_t off = 0;
    unsigned n = 0;
    do {
        std::size_t size = total - off;
        if (size <= TOVRIN_FRAG_SIZE) {
            head->hdr.flags &= static_cast<uint8_t>(~TOVRIN_F_MORE_FRAGS);
        } else {
            size = TOVRIN_FRAG_SIZE;
            head->hdr.flags |= TOVRIN_F_MORE_FRAGS;
        }
        head->hdr.frag = static_cast<uint8_t>(n);
        head->hdr.data_len = static_cast<uint16_t>(size);
        tovrin_hdr_encode(head->hdr, std::span<uint8_t, TOVRIN_HDR_LEN>(hdrs[n], TOVRIN_HDR_LEN));
        iov[n][0] = iovec{hdrs[n], TOVRIN_HDR_LEN};
        iov[n][1] = iovec{const_cast<uint8_t *>(bytes + off), size};
        msgs[n] = mmsghdr{};
        msgs[n].msg_hdr.msg_name = &link->peer_addr;
        msgs[n].msg_hdr.msg_namelen = sizeof link->peer_addr;
        msgs[n].msg_hdr.msg_iov = iov[n];
        msgs[n].msg_hdr.msg_iovlen = 2;
        off += size;
        ++n;
    } while (off < total && n < TOVRIN_MAX_FRAGS);  // data_len <= TOVRIN_MAX_PAYLOAD: 16 at most
    tovrin_counters.datagrams_out += tovrin_send_burst(link->sock, msgs, n);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s sent seq %d with %d fragments\n", "tovrin_tx_msg", head->hdr.ap_trans,
               static_cast<int>(n));
}

void tovrin_msg_retry(void *eloop_ctx, void *user_ctx) {
    auto *link = static_cast<tovrin_link_t *>(eloop_ctx);
    int retry_cnt = static_cast<int>(reinterpret_cast<intptr_t>(user_ctx));
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s AP(%p) - retry_cnt %d\n", "tovrin_msg_retry", static_cast<void *>(link),
               retry_cnt);
    if (retry_cnt < kMaxRetry) {
        tovrin_tx_msg(link, retry_cnt + 1);
        vk_eloop_register_timeout(0, 1000u * (1000u << retry_cnt), tovrin_msg_retry, link, retry_value(retry_cnt + 1));
    } else {
        link->comm.ack_wait = 0;
        tovrin_status_down(link);
    }
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", "tovrin_msg_retry");
}

void tovrin_recv_ack(tovrin_link_t *link, const tovrin_hdr_t *hdr) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received Ack %d from AP(%p) %u.%u.%u.%u - len %d\n", "tovrin_recv_ack",
               hdr->ap_trans, static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), hdr->data_len);
    tovrin_comm_t &comm = link->comm;
    if (comm.ack_wait == 0 || comm.head == nullptr) {
        tovrin_refused(TOVRIN_REFUSED_ACK_NOT_WAITING);
        TOVRIN_LOG(
            TOVRIN_LOG_NOTE, "NOTE: <<%s: Ack rcvd not waiting data_len %d from AP(%p) %u.%u.%u.%u  AP Trans %d\n",
            "tovrin_recv_ack", hdr->data_len, static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip), hdr->ap_trans);
        return;
    }
    tovrin_msg_t *head = comm.head;
    if (hdr->ap_trans != head->hdr.ap_trans) {
        tovrin_refused(TOVRIN_REFUSED_ACK_UNEXPECTED);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Unrequested ack %d expected %d from AP(%p) %u.%u.%u.%u\n",
                   "tovrin_recv_ack", hdr->ap_trans, head->hdr.ap_trans, static_cast<void *>(link),
                   TOVRIN_IP_ARGS(link->drav_ip));
        return;
    }
    tovrin_cancel_msg(link);
    ++tovrin_counters.up_messages_acked;
    tovrin_handle_ack(link, head);
    tovrin_complete_send_msg(link, head);
    if (comm.head != nullptr) tovrin_tx_msg(link, 0);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Ack from AP(%p) %u.%u.%u.%u\n", "tovrin_recv_ack", static_cast<void *>(link),
               TOVRIN_IP_ARGS(link->drav_ip));
}

void tovrin_complete_send_msg(tovrin_link_t *link, tovrin_msg_t *msg) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<< Removing message %p from AP(%p) %u.%u.%u.%u\n", "tovrin_complete_send_msg",
               static_cast<void *>(msg), static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
    tovrin_comm_t &comm = link->comm;
    if (msg->next != nullptr)
        msg->next->prev = msg->prev;
    else
        comm.tail = msg->prev;
    *msg->prev = msg->next;
    // One block is kept for the next message: a steady flow of messages then
    // costs no heap call at all, and the most an idle daemon holds is one block.
    if (tovrin_spare_msg == nullptr)
        tovrin_spare_msg = msg;
    else
        std::free(msg);
    comm.msg_cnt -= 1;
}

void tovrin_cancel_msg(tovrin_link_t *link) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<< AP(%p) -  ack_wait %d\n", "tovrin_cancel_msg", static_cast<void *>(link),
               link->comm.ack_wait);
    if (link->comm.ack_wait != 0) {
        vk_eloop_cancel_timeout(tovrin_msg_retry, link, VK_ELOOP_ANY);
        link->comm.ack_wait = 0;
    }
}
