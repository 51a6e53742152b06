#include "relay/relay.h"

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/protect.h"
#include "link/send_queue.h"
#include "relay/endpoints.h"

uint32_t tovrin_msg_id = TOVRIN_MSG_ID_START;

namespace {

// Sender names come from other processes and need not be terminated; every
// line prints at most the field's 64 bytes.
#define NAME(h) static_cast<int>(TOVRIN_APP_NAME_LEN), (h).src_name

void answer_failed(tovrin_app_msg_t *m) {
    if (m->flags & TOVRIN_MSG_F_ACK_REQ) {
        m->flags |= TOVRIN_MSG_F_FAILED;
        tovrin_send_app(m->src_ep, m, nullptr);
    }
}

}  // namespace

void tovrin_proc_send_msg(const uint8_t *payload, uint32_t len) {
    static constexpr const char *fn = "tovrin_proc_send_msg";
    if (len < TOVRIN_APP_HDR_LEN) {
        tovrin_refused(TOVRIN_REFUSED_APP_SHORTER_THAN_HEADER);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Msg of %u bytes is shorter than its header\n", fn, len);
        return;
    }
    tovrin_app_msg_t m;
    std::memcpy(&m, payload, TOVRIN_APP_HDR_LEN);
    const uint8_t *data = payload + TOVRIN_APP_HDR_LEN;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s: to ep %d from %.*s len %d\n", fn, m.dst_ep, NAME(m),
               static_cast<int>(m.len));
    if (m.len != len - TOVRIN_APP_HDR_LEN || !tovrin_data_fits(m.len)) {
        tovrin_refused(TOVRIN_REFUSED_APP_BAD_LENGTH);
        answer_failed(&m);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Bad length from %.*s to %d: len %u, %u data bytes received\n", fn,
                   NAME(m), m.dst_ep, m.len, len - static_cast<uint32_t>(TOVRIN_APP_HDR_LEN));
        return;
    }
    if (tovrin_gbl.status == 0) {
        tovrin_refused(TOVRIN_REFUSED_APP_LINK_DOWN);
        answer_failed(&m);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: No Conn failed from %.*s to %d msg flags 0x%08x\n", fn, NAME(m),
                   m.dst_ep, m.flags);
        return;
    }
    if (tovrin_new_send_msg(&tovrin_gbl, &m, data) != nullptr) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
        return;
    }
    answer_failed(&m);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Failed Sending from %.*s to %d msg flags 0x%08x\n", fn, NAME(m), m.dst_ep,
               m.flags);
}

void tovrin_handle_msg(tovrin_link_t * /*link*/, int32_t src, int32_t dst, const uint8_t *data, std::size_t n) {
    static constexpr const char *fn = "tovrin_handle_msg";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s: Sending id %d to ep %d from %d len %d\n", fn,
               static_cast<int>(tovrin_msg_id), dst, src, static_cast<int>(n));
    tovrin_app_msg_t h{};
    h.src_ep = src;
    h.id = tovrin_msg_id;
    h.flags = TOVRIN_MSG_F_FROM_CTRL;
    h.dst_ep = dst;
    h.len = static_cast<uint32_t>(n);
    tovrin_msg_id += 1;
    tovrin_send_app(dst, &h, data);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
}

void tovrin_handle_ack(tovrin_link_t * /*link*/, tovrin_msg_t *msg) {
    const tovrin_app_msg_t &h = msg->app_hdr;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: to ep %d from %.*s len %d flags 0x%08x\n", "tovrin_handle_ack", h.dst_ep,
               NAME(h), static_cast<int>(h.len), h.flags);
    if (h.flags & TOVRIN_MSG_F_ACK_REQ) tovrin_send_app(h.src_ep, &h, nullptr);
}

void tovrin_ap_msg_failed(tovrin_link_t * /*link*/, tovrin_msg_t *msg) {
    tovrin_app_msg_t &h = msg->app_hdr;
    TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: >>%s<<: to ep %d from %.*s len %d flags 0x%08x\n", "tovrin_ap_msg_failed",
               h.dst_ep, NAME(h), static_cast<int>(h.len), h.flags);
    answer_failed(&h);
}
