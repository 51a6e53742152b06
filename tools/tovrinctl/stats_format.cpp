#include "tools/tovrinctl/stats_format.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tools/tovrinctl/decode.h"
#include "tools/tovrinctl/endpoints.h"

namespace tovrinctl {

namespace {

ipv4_text_t controller_of(const tovrin_counters_t &c) {
    uint8_t a[4];
    std::memcpy(a, &c.controller, 4);
    return format_ipv4(a);
}

// Endpoint labels in the daemon's slot order: the table's ids, then "other".
struct label_t {
    char s[12];
};
label_t endpoint_label(std::size_t slot) {
    label_t l;
    if (slot < TOVRIN_APP_EP_COUNT) std::snprintf(l.s, sizeof l.s, "%d", int(app_ep[slot].id));
    else std::snprintf(l.s, sizeof l.s, "other");
    return l;
}

struct plain_t {
    const char *name;
    uint64_t value;
};
// The plain counters, in the order every format prints them.
template <typename Each>
void for_each_plain(const tovrin_counters_t &c, Each each) {
    const plain_t plain[] = {
        {"link_ups", c.link_ups},
        {"link_downs", c.link_downs},
        {"registrations_sent", c.registrations_sent},
        {"keepalives_sent", c.keepalives_sent},
        {"keepalives_answered", c.keepalives_answered},
        {"datagrams_in", c.datagrams_in},
        {"datagrams_out", c.datagrams_out},
        {"datagrams_refused", c.datagrams_refused},
        {"retransmissions", c.retransmissions},
        {"up_messages_accepted", c.up_messages_accepted},
        {"up_messages_acked", c.up_messages_acked},
        {"up_messages_failed", c.up_messages_failed},
        {"down_messages_delivered", c.down_messages_delivered},
        {"down_messages_dropped", c.down_messages_dropped},
        {"send_queue_depth", c.send_queue_depth},
        {"send_queue_high_water", c.send_queue_high_water},
        {"backlog_depth", c.backlog_depth},
        {"backlog_dropped", c.backlog_dropped},
    };
    for (const plain_t &p : plain) each(p.name, p.value);
}

// The start of a table row: the name, then the value from column 30.
void row(const char *name) { std::printf("  %-27s ", name); }

void family(const char *name, const char *type, const char *help) {
    std::printf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

}  // namespace

std::optional<tovrin_counters_t> decode_stats(std::span<const uint8_t> payload, char *why, std::size_t why_size) {
    tovrin_counters_t c{};
    if (payload.size() < 16) {
        std::snprintf(why, why_size, "answer of %zu bytes, too short for a counters record", payload.size());
        return std::nullopt;
    }
    std::memcpy(&c, payload.data(), 16);
    if (c.version != TOVRIN_STATS_VERSION || c.size != sizeof c || c.refusal_count != TOVRIN_REFUSAL_COUNT ||
        c.endpoint_count != TOVRIN_STATS_ENDPOINTS || payload.size() != sizeof c) {
        std::snprintf(why, why_size,
                      "counters record version %u of %u bytes with %u reasons; this tovrinctl reads version %u of %zu "
                      "bytes with %zu",
                      c.version, c.size, c.refusal_count, TOVRIN_STATS_VERSION, sizeof c,
                      std::size_t(TOVRIN_REFUSAL_COUNT));
        return std::nullopt;
    }
    std::memcpy(&c, payload.data(), sizeof c);
    return c;
}

void print_stats_text(const tovrin_counters_t &c) {
    std::printf("link %s controller %s for %" PRIu64 " s\n", c.link_up ? "UP" : "DOWN", controller_of(c).s,
                uint64_t(c.seconds_in_state));
    for_each_plain(c, [](const char *name, uint64_t v) {
        row(name);
        std::printf("%" PRIu64 "\n", v);
    });
    std::puts("refused by reason (others 0):");
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        if (c.refused[i] != 0) {
            row(tovrin_refusal_names[i]);
            std::printf("%" PRIu64 "\n", uint64_t(c.refused[i]));
        }
    std::puts("waiting room by endpoint (depth dropped):");
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i) {
        row(endpoint_label(i).s);
        std::printf("%" PRIu64 " %" PRIu64 "\n", uint64_t(c.backlog_depth_by_ep[i]),
                    uint64_t(c.backlog_dropped_by_ep[i]));
    }
}

void print_stats_json(const tovrin_counters_t &c) {
    std::printf("{\"link_state\":\"%s\",\"controller\":\"%s\",\"seconds_in_state\":%" PRIu64,
                c.link_up ? "up" : "down", controller_of(c).s, uint64_t(c.seconds_in_state));
    for_each_plain(c, [](const char *name, uint64_t v) { std::printf(",\"%s\":%" PRIu64, name, v); });
    std::fputs(",\"refused_by_reason\":{", stdout);
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        std::printf("%s\"%s\":%" PRIu64, i ? "," : "", tovrin_refusal_names[i], uint64_t(c.refused[i]));
    std::fputs("},\"backlog_by_endpoint\":{", stdout);
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        std::printf("%s\"%s\":{\"depth\":%" PRIu64 ",\"dropped\":%" PRIu64 "}", i ? "," : "", endpoint_label(i).s,
                    uint64_t(c.backlog_depth_by_ep[i]), uint64_t(c.backlog_dropped_by_ep[i]));
    std::fputs("}}\n", stdout);
}

void print_stats_prometheus(const tovrin_counters_t &c) {
    struct metric_t {
        const char *name, *type, *help;
        uint64_t value;
    };
    const metric_t metrics[] = {
        {"tovrin_link_up", "gauge", "Whether the link to the controller is up (1) or down (0).", c.link_up},
        {"tovrin_link_state_seconds", "gauge", "Seconds since the link last went up or down (or the daemon started).",
         c.seconds_in_state},
        {"tovrin_link_ups_total", "counter", "Times the link came up.", c.link_ups},
        {"tovrin_link_downs_total", "counter", "Times the link went down.", c.link_downs},
        {"tovrin_registrations_sent_total", "counter", "Registration requests sent.", c.registrations_sent},
        {"tovrin_keepalives_sent_total", "counter", "Keepalive requests sent.", c.keepalives_sent},
        {"tovrin_keepalives_answered_total", "counter", "Keepalive responses received.", c.keepalives_answered},
        {"tovrin_datagrams_in_total", "counter", "UDP datagrams received on the link.", c.datagrams_in},
        {"tovrin_datagrams_out_total", "counter", "UDP datagrams sent on the link.", c.datagrams_out},
        {"tovrin_retransmissions_total", "counter",
         "Messages to the controller sent again for want of an acknowledgement.", c.retransmissions},
        {"tovrin_up_messages_accepted_total", "counter", "Local messages queued for the controller.",
         c.up_messages_accepted},
        {"tovrin_up_messages_acked_total", "counter", "Messages the controller acknowledged.", c.up_messages_acked},
        {"tovrin_up_messages_failed_total", "counter", "Queued messages failed when the link was lost.",
         c.up_messages_failed},
        {"tovrin_down_messages_delivered_total", "counter", "Controller messages handed to a local endpoint.",
         c.down_messages_delivered},
        {"tovrin_down_messages_dropped_total", "counter", "Controller messages given up after their acknowledgement.",
         c.down_messages_dropped},
        {"tovrin_send_queue_messages", "gauge", "Messages waiting for the controller now.", c.send_queue_depth},
        {"tovrin_send_queue_high_water_messages", "gauge", "Most messages that waited for the controller at once.",
         c.send_queue_high_water},
    };
    for (const metric_t &m : metrics) {
        family(m.name, m.type, m.help);
        std::printf("%s %" PRIu64 "\n", m.name, m.value);
    }
    family("tovrin_controller_info", "gauge", "The controller's address, as a label.");
    std::printf("tovrin_controller_info{controller=\"%s\"} 1\n", controller_of(c).s);
    family("tovrin_refused_total", "counter", "Datagrams and IPC messages refused, by reason.");
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        std::printf("tovrin_refused_total{reason=\"%s\"} %" PRIu64 "\n", tovrin_refusal_names[i],
                    uint64_t(c.refused[i]));
    family("tovrin_backlog_messages", "gauge", "Messages waiting for a busy local endpoint, by endpoint.");
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        std::printf("tovrin_backlog_messages{endpoint=\"%s\"} %" PRIu64 "\n", endpoint_label(i).s,
                    uint64_t(c.backlog_depth_by_ep[i]));
    family("tovrin_backlog_dropped_total", "counter",
           "Messages given up while waiting for a local endpoint, by endpoint.");
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        std::printf("tovrin_backlog_dropped_total{endpoint=\"%s\"} %" PRIu64 "\n", endpoint_label(i).s,
                    uint64_t(c.backlog_dropped_by_ep[i]));
}

}  // namespace tovrinctl
