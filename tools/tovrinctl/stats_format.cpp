#include "tools/tovrinctl/stats_format.h"

#include <cstring>
#include <utility>
#include <vector>

#include "tools/tovrinctl/decode.h"
#include "tools/tovrinctl/endpoints.h"

namespace tovrinctl {

namespace {

std::string controller_of(const tovrin_counters_t &c) {
    std::array<uint8_t, 4> a{};
    std::memcpy(a.data(), &c.controller, 4);
    return format_ipv4(a);
}

// Endpoint labels in the daemon's slot order: the table's ids, then "other".
std::string endpoint_label(std::size_t slot) {
    return slot < TOVRIN_APP_EP_COUNT ? std::to_string(app_ep[slot].id) : "other";
}

// The plain counters, in the order every format prints them.
std::vector<std::pair<const char *, uint64_t>> plain(const tovrin_counters_t &c) {
    return {
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
}

std::string json_key(const std::string &k) { return "\"" + k + "\":"; }

}  // namespace

std::optional<tovrin_counters_t> decode_stats(std::span<const uint8_t> payload, std::string &why) {
    tovrin_counters_t c{};
    if (payload.size() < 16) {
        why = "answer of " + std::to_string(payload.size()) + " bytes, too short for a counters record";
        return std::nullopt;
    }
    std::memcpy(&c, payload.data(), 16);
    if (c.version != TOVRIN_STATS_VERSION || c.size != sizeof c || c.refusal_count != TOVRIN_REFUSAL_COUNT ||
        c.endpoint_count != TOVRIN_STATS_ENDPOINTS || payload.size() != sizeof c) {
        why = "counters record version " + std::to_string(c.version) + " of " + std::to_string(c.size) +
              " bytes with " + std::to_string(c.refusal_count) + " reasons; this tovrinctl reads version " +
              std::to_string(TOVRIN_STATS_VERSION) + " of " + std::to_string(sizeof c) + " bytes with " +
              std::to_string(TOVRIN_REFUSAL_COUNT);
        return std::nullopt;
    }
    std::memcpy(&c, payload.data(), sizeof c);
    return c;
}

std::string format_stats_text(const tovrin_counters_t &c) {
    auto row = [](const std::string &name, const std::string &value) {
        std::string line = "  " + name;
        line.resize(std::max<std::size_t>(line.size() + 1, 30), ' ');
        return line + value + "\n";
    };
    std::string out = "link " + std::string(c.link_up ? "UP" : "DOWN") + " controller " + controller_of(c) + " for " +
                      std::to_string(c.seconds_in_state) + " s\n";
    for (const auto &[name, v] : plain(c)) out += row(name, std::to_string(v));
    out += "refused by reason (others 0):\n";
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        if (c.refused[i] != 0) out += row(tovrin_refusal_names[i], std::to_string(c.refused[i]));
    out += "waiting room by endpoint (depth dropped):\n";
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        out += row(endpoint_label(i),
                   std::to_string(c.backlog_depth_by_ep[i]) + " " + std::to_string(c.backlog_dropped_by_ep[i]));
    return out;
}

std::string format_stats_json(const tovrin_counters_t &c) {
    std::string out = "{" + json_key("link_state") + (c.link_up ? "\"up\"" : "\"down\"") + "," +
                      json_key("controller") + "\"" + controller_of(c) + "\"," + json_key("seconds_in_state") +
                      std::to_string(c.seconds_in_state);
    for (const auto &[name, v] : plain(c)) out += "," + json_key(name) + std::to_string(v);
    out += "," + json_key("refused_by_reason") + "{";
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        out += (i ? "," : "") + json_key(tovrin_refusal_names[i]) + std::to_string(c.refused[i]);
    out += "}," + json_key("backlog_by_endpoint") + "{";
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        out += (i ? "," : "") + json_key(endpoint_label(i)) + "{" + json_key("depth") +
               std::to_string(c.backlog_depth_by_ep[i]) + "," + json_key("dropped") +
               std::to_string(c.backlog_dropped_by_ep[i]) + "}";
    return out + "}}\n";
}

std::string format_stats_prometheus(const tovrin_counters_t &c) {
    std::string out;
    auto family = [&out](const std::string &name, const char *type, const char *help) {
        out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    };
    auto sample = [&out](const std::string &name, uint64_t v, const std::string &labels = "") {
        out += name + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(v) + "\n";
    };
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
        sample(m.name, m.value);
    }
    family("tovrin_controller_info", "gauge", "The controller's address, as a label.");
    sample("tovrin_controller_info", 1, "controller=\"" + controller_of(c) + "\"");
    family("tovrin_refused_total", "counter", "Datagrams and IPC messages refused, by reason.");
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        sample("tovrin_refused_total", c.refused[i], std::string("reason=\"") + tovrin_refusal_names[i] + "\"");
    family("tovrin_backlog_messages", "gauge", "Messages waiting for a busy local endpoint, by endpoint.");
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        sample("tovrin_backlog_messages", c.backlog_depth_by_ep[i], "endpoint=\"" + endpoint_label(i) + "\"");
    family("tovrin_backlog_dropped_total", "counter",
           "Messages given up while waiting for a local endpoint, by endpoint.");
    for (std::size_t i = 0; i < TOVRIN_STATS_ENDPOINTS; ++i)
        sample("tovrin_backlog_dropped_total", c.backlog_dropped_by_ep[i], "endpoint=\"" + endpoint_label(i) + "\"");
    return out;
}

std::optional<std::string> format_status_json(std::span<const uint8_t> payload) {
    if (payload.size() < 8) return std::nullopt;
    int32_t status = 0;
    std::memcpy(&status, payload.data() + 4, 4);
    return "{\"controller\":\"" + format_ipv4(payload.first<4>()) + "\",\"link_state\":\"" +
           (status == 1 ? "up" : "down") + "\"}";
}

}  // namespace tovrinctl
