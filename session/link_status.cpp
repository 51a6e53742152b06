#include "session/link_status.h"

#include <syslog.h>

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/send_queue.h"
#include "platform/eloop.h"
#include "platform/os.h"
#include "relay/endpoints.h"
#include "relay/relay.h"
#include "session/keepalive.h"
#include "session/registration.h"

void tovrin_status_down(tovrin_link_t *link) {
    tovrin_cancel_msg(link);
    // Each message is freed in the loop, so its successor is read first.
    tovrin_msg_t *next = nullptr;
    for (tovrin_msg_t *msg = link->comm.head; msg != nullptr; msg = next) {
        next = msg->next;
        ++tovrin_counters.up_messages_failed;
        if (msg->hdr.flags & TOVRIN_F_ACK_REQ) tovrin_ap_msg_failed(link, msg);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: msg %d Failed to %u.%u.%u.%u\n", "tovrin_status_down", msg->hdr.ap_trans,
                   TOVRIN_IP_ARGS(link->drav_ip));
        tovrin_complete_send_msg(link, msg);
    }
    if (link->status == 1) {
        tovrin_counters_link_change(false);
        vk_eloop_cancel_timeout(tovrin_send_keepalive, VK_ELOOP_ANY, VK_ELOOP_ANY);
        tovrin_send_registration(nullptr, nullptr);
    }
    link->status = 0;
    link->encrypt_state = 0;
    tovrin_send_status(link);
}

void tovrin_send_status(tovrin_link_t *link) {
    static constexpr const char *fn = "tovrin_send_status";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s: Sending status %d for %u.%u.%u.%u\n", fn, link->status,
               TOVRIN_IP_ARGS(link->drav_ip));
    tovrin_app_msg_t hdr{};
    hdr.id = link->status_msg_id;
    hdr.flags = TOVRIN_MSG_F_STATUS;
    hdr.len = 8;
    uint8_t data[8];
    std::memcpy(data, &link->drav_ip, 4);
    std::memcpy(data + 4, &link->status, 4);
    vk_os_syslog(LOG_INFO, "AP-Ctrl Tunl Status %s CtrlIP %u.%u.%u.%u", link->status == 1 ? "UP" : "DOWN",
                 TOVRIN_IP_ARGS(link->drav_ip));
    for (const tovrin_app_ep_t *ep = app_ep; ep->id != -1; ++ep) tovrin_send_app(ep->id, &hdr, data);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
}
