#include "relay/endpoints.h"

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "core/startup.h"
#include "relay/backlog.h"

void tovrin_send_app(int32_t e, const tovrin_app_msg_t *h, const uint8_t *data) {
    static constexpr const char *fn = "tovrin_send_app";
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(e);
    if (ep == nullptr) {
        tovrin_refused(TOVRIN_REFUSED_APP_UNKNOWN_ENDPOINT);
        if (h->flags & TOVRIN_MSG_F_FROM_CTRL) ++tovrin_counters.down_messages_dropped;
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Msg flag 0x%08x from Unknown endpoint %d\n", fn, h->flags, e);
        return;
    }
    // Data from the controller may be longer than one IPC message can carry.
    if (data != nullptr && h->len > TOVRIN_APP_MAX_DATA) {
        tovrin_refused(TOVRIN_REFUSED_APP_TOO_BIG_FOR_ENDPOINT);
        if (h->flags & TOVRIN_MSG_F_FROM_CTRL) ++tovrin_counters.down_messages_dropped;
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Msg of %u data bytes for endpoint %d exceeds %u, dropped\n", fn,
                   h->len, e, static_cast<unsigned>(TOVRIN_APP_MAX_DATA));
        return;
    }
    // One buffer for the process: sends never nest and 16 KB stays off the stack.
    static vk_ipc_msg_t msg;
    msg.type = TOVRIN_IPC_APP_MSG;
    std::memcpy(msg.payload, h, TOVRIN_APP_HDR_LEN);
    msg.len = TOVRIN_APP_HDR_LEN;
    if (data != nullptr) {
        std::memcpy(msg.payload + TOVRIN_APP_HDR_LEN, data, h->len);
        msg.len += h->len;
    }
    vk_ipc_send_desc_t desc;  // every field set below
    desc.handle = &tovrin_ipc;
    desc.msg = &msg;
    std::memcpy(desc.peer, ep->path, sizeof desc.peer);
    if (h->flags & TOVRIN_MSG_F_SYNC) {
        msg.flags = VK_IPC_F_RESPONSE;
        desc.kind = VK_IPC_KIND_RESP;
        tovrin_ipc_deliver(&desc);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Sent Sync Resp 0x%08x from endpoint %d\n", fn, h->flags, e);
    } else {
        msg.flags = VK_IPC_F_NOTIFY;
        desc.kind = VK_IPC_KIND_NOTIFY;
        tovrin_ipc_deliver(&desc);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Sent Note Resp flag 0x%08x from endpoint %d\n", fn, h->flags, e);
    }
}
