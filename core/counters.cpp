#include "core/counters.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "link/record.h"
#include "platform/os.h"
#include "relay/app_msg.h"
#include "relay/backlog.h"
#include "relay/endpoints.h"

tovrin_counters_t tovrin_counters;

namespace {

uint64_t uptime_now() {
    struct sysinfo info {};
    return vk_os_sysinfo(&info) == 0 && info.uptime > 0 ? uint64_t(info.uptime) : 0;
}

// A message from the controller on its way to a local endpoint.
bool from_controller(const vk_ipc_msg_t *m) {
    if (m->type != TOVRIN_IPC_APP_MSG || m->len < TOVRIN_APP_HDR_LEN) return false;
    tovrin_app_msg_t h;
    std::memcpy(&h, m->payload, TOVRIN_APP_HDR_LEN);
    return (h.flags & TOVRIN_MSG_F_FROM_CTRL) != 0;
}

bool status_report(const vk_ipc_msg_t *m) {
    if (m->type != TOVRIN_IPC_APP_MSG || m->len < TOVRIN_APP_HDR_LEN) return false;
    tovrin_app_msg_t h;
    std::memcpy(&h, m->payload, TOVRIN_APP_HDR_LEN);
    return (h.flags & TOVRIN_MSG_F_STATUS) != 0;
}

}  // namespace

void tovrin_counters_reset() {
    tovrin_counters = {};
    tovrin_counters.version = TOVRIN_STATS_VERSION;
    tovrin_counters.size = sizeof(tovrin_counters_t);
    tovrin_counters.refusal_count = TOVRIN_REFUSAL_COUNT;
    tovrin_counters.endpoint_count = TOVRIN_STATS_ENDPOINTS;
    tovrin_counters.last_change_uptime = uptime_now();
}

void tovrin_counters_link_change(bool up) {
    ++(up ? tovrin_counters.link_ups : tovrin_counters.link_downs);
    tovrin_counters.last_change_uptime = uptime_now();
}

std::size_t tovrin_counters_endpoint_slot(const char *path) {
    std::size_t i = 0;
    for (; i + 1 < TOVRIN_STATS_ENDPOINTS && app_ep[i].id != -1; ++i)
        if (std::strncmp(app_ep[i].path, path, VK_IPC_PATH_MAX) == 0) return i;
    return TOVRIN_STATS_ENDPOINTS - 1;
}

void tovrin_counters_local_sent(const vk_ipc_msg_t *msg) {
    if (from_controller(msg)) ++tovrin_counters.down_messages_delivered;
}

void tovrin_counters_local_dropped(const char *peer, const vk_ipc_msg_t *msg, tovrin_refusal_t why, bool waited) {
    if (!waited && status_report(msg)) return;
    tovrin_refused(why);
    if (from_controller(msg)) ++tovrin_counters.down_messages_dropped;
    if (!waited) return;
    ++tovrin_counters.backlog_dropped;
    ++tovrin_counters.backlog_dropped_by_ep[tovrin_counters_endpoint_slot(peer)];
}

void tovrin_counters_read(tovrin_counters_t *out) {
    *out = tovrin_counters;
    out->link_up = tovrin_gbl.status == 1 ? 1 : 0;
    out->controller = tovrin_gbl.drav_ip;
    const uint64_t now = uptime_now();
    out->seconds_in_state = now > out->last_change_uptime ? now - out->last_change_uptime : 0;
    out->send_queue_depth = tovrin_gbl.comm.msg_cnt > 0 ? uint64_t(tovrin_gbl.comm.msg_cnt) : 0;
    out->backlog_depth = tovrin_backlog_count();
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i) out->backlog_depth_by_ep[i] = 0;
    for (std::size_t i = 0; i + 1 < TOVRIN_STATS_ENDPOINTS && app_ep[i].id != -1; ++i)
        out->backlog_depth_by_ep[i] = tovrin_backlog_count_for(app_ep[i].path);
    uint64_t named = 0;
    for (std::size_t i = 0; i + 1 < TOVRIN_STATS_ENDPOINTS; ++i) named += out->backlog_depth_by_ep[i];
    out->backlog_depth_by_ep[TOVRIN_STATS_ENDPOINTS - 1] = out->backlog_depth - named;
}

void tovrin_counters_line(char *buf, std::size_t n) {
    tovrin_counters_t c;
    tovrin_counters_read(&c);
    std::size_t used = 0;
    auto put = [&](const char *name, uint64_t v) {
        if (used >= n) return;
        const int w = std::snprintf(buf + used, n - used, "%s%s=%" PRIu64, used ? " " : "", name, v);
        if (w > 0) used += std::size_t(w);
    };
    if (n == 0) return;
    buf[0] = '\0';
    put("link_up", c.link_up);
    put("seconds_in_state", c.seconds_in_state);
    put("link_ups", c.link_ups);
    put("link_downs", c.link_downs);
    put("registrations_sent", c.registrations_sent);
    put("keepalives_sent", c.keepalives_sent);
    put("keepalives_answered", c.keepalives_answered);
    put("datagrams_in", c.datagrams_in);
    put("datagrams_out", c.datagrams_out);
    put("datagrams_refused", c.datagrams_refused);
    put("retransmissions", c.retransmissions);
    put("up_messages_accepted", c.up_messages_accepted);
    put("up_messages_acked", c.up_messages_acked);
    put("up_messages_failed", c.up_messages_failed);
    put("down_messages_delivered", c.down_messages_delivered);
    put("down_messages_dropped", c.down_messages_dropped);
    put("send_queue_depth", c.send_queue_depth);
    put("send_queue_high_water", c.send_queue_high_water);
    put("backlog_depth", c.backlog_depth);
    put("backlog_dropped", c.backlog_dropped);
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        if (c.refused[i] != 0) put(tovrin_refusal_names[i], c.refused[i]);
}
