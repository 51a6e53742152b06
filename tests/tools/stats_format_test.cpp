// The counters record as tovrinctl reads and prints it: layout checks, the
// JSON keys and the Prometheus exposition's rules.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <set>
#include <sstream>
#include <vector>

#include "tools/tovrinctl/stats_format.h"

namespace tovrinctl {
namespace {

tovrin_counters_t sample() {
    tovrin_counters_t c{};
    c.version = TOVRIN_STATS_VERSION;
    c.size = sizeof c;
    c.refusal_count = TOVRIN_REFUSAL_COUNT;
    c.endpoint_count = TOVRIN_STATS_ENDPOINTS;
    c.link_up = 1;
    c.controller = inet_addr("198.18.0.1");
    c.seconds_in_state = 42;
    c.link_ups = 2;
    c.link_downs = 1;
    c.datagrams_refused = 3;
    c.refused[TOVRIN_REFUSED_BAD_MAGIC] = 2;
    c.refused[TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK] = 1;
    c.backlog_depth_by_ep[1] = 4;
    c.backlog_dropped_by_ep[TOVRIN_STATS_ENDPOINTS - 1] = 1;
    return c;
}

std::vector<uint8_t> bytes_of(const tovrin_counters_t &c) {
    std::vector<uint8_t> b(sizeof c);
    std::memcpy(b.data(), &c, sizeof c);
    return b;
}

TEST(TovrinctlStats, RecordsOfAnotherLayoutAreRefused) {
    struct Case {
        const char *what;
        std::vector<uint8_t> payload;
    };
    auto changed = [](auto edit) {
        tovrin_counters_t c = sample();
        edit(c);
        return bytes_of(c);
    };
    std::vector<uint8_t> cut = bytes_of(sample());
    cut.pop_back();
    const Case cases[] = {
        {"empty", {}},
        {"15 bytes", std::vector<uint8_t>(15)},
        {"version 2", changed([](tovrin_counters_t &c) { c.version = 2; })},
        {"other size", changed([](tovrin_counters_t &c) { c.size += 8; })},
        {"more reasons", changed([](tovrin_counters_t &c) { c.refusal_count += 1; })},
        {"more endpoints", changed([](tovrin_counters_t &c) { c.endpoint_count += 1; })},
        {"a byte short", cut},
    };
    for (const Case &k : cases) {
        std::string why;
        EXPECT_FALSE(decode_stats(k.payload, why).has_value()) << k.what;
        EXPECT_FALSE(why.empty()) << k.what;
    }
    std::string why;
    const auto ok = decode_stats(bytes_of(sample()), why);
    ASSERT_TRUE(ok.has_value()) << why;
    EXPECT_EQ(ok->refused[TOVRIN_REFUSED_BAD_MAGIC], 2u);
}

TEST(TovrinctlStats, JsonCarriesEveryDocumentedKey) {
    const std::string j = format_stats_json(sample());
    EXPECT_EQ(j.rfind("{\"link_state\":\"up\",\"controller\":\"198.18.0.1\",\"seconds_in_state\":42,"
                      "\"link_ups\":2,\"link_downs\":1,",
                      0),
              0u)
        << j;
    for (const char *key : {"registrations_sent", "keepalives_sent", "keepalives_answered", "datagrams_in",
                            "datagrams_out", "retransmissions", "up_messages_accepted", "up_messages_acked",
                            "up_messages_failed", "down_messages_delivered", "down_messages_dropped",
                            "send_queue_depth", "send_queue_high_water", "backlog_depth", "backlog_dropped"})
        EXPECT_NE(j.find(std::string("\"") + key + "\":0,"), std::string::npos) << key;
    EXPECT_NE(j.find("\"datagrams_refused\":3,"), std::string::npos);
    EXPECT_NE(j.find("\"refused_by_reason\":{\"short_datagram\":0,"), std::string::npos);
    EXPECT_NE(j.find("\"bad_magic\":2,"), std::string::npos);
    EXPECT_NE(j.find("\"delivery_endpoint_stuck\":1}"), std::string::npos) << "the last reason closes the object";
    EXPECT_NE(j.find("\"102\":{\"depth\":4,\"dropped\":0}"), std::string::npos);
    EXPECT_NE(j.find("\"other\":{\"depth\":0,\"dropped\":1}}}\n"), std::string::npos);
    EXPECT_EQ(format_status_json(std::vector<uint8_t>{198, 18, 0, 1, 0, 0, 0, 0}),
              "{\"controller\":\"198.18.0.1\",\"link_state\":\"down\"}");
    EXPECT_FALSE(format_status_json(std::vector<uint8_t>(7)).has_value());
}

// Every sample has its family's HELP and TYPE before it; counters end in _total.
TEST(TovrinctlStats, PrometheusFamiliesAreDeclaredAndNamed) {
    std::istringstream in(format_stats_prometheus(sample()));
    std::set<std::string> helped, counters, gauges;
    std::string line;
    int samples = 0;
    while (std::getline(in, line)) {
        std::istringstream w(line);
        std::string a, name, type;
        if (line.rfind("# HELP ", 0) == 0) {
            w >> a >> a >> name;
            helped.insert(name);
            continue;
        }
        if (line.rfind("# TYPE ", 0) == 0) {
            w >> a >> a >> name >> type;
            EXPECT_TRUE(helped.count(name)) << line;
            (type == "counter" ? counters : gauges).insert(name);
            continue;
        }
        name = line.substr(0, line.find_first_of("{ "));
        EXPECT_TRUE(counters.count(name) || gauges.count(name)) << line;
        EXPECT_EQ(name.rfind("tovrin_", 0), 0u) << line;
        ++samples;
    }
    for (const std::string &c : counters) EXPECT_EQ(c.substr(c.size() - 6), "_total") << c;
    EXPECT_EQ(samples, 17 + 1 + int(TOVRIN_REFUSAL_COUNT) + 2 * int(TOVRIN_STATS_ENDPOINTS));
    const std::string text = format_stats_prometheus(sample());
    EXPECT_NE(text.find("\ntovrin_refused_total{reason=\"bad_magic\"} 2\n"), std::string::npos);
    EXPECT_NE(text.find("\ntovrin_backlog_messages{endpoint=\"102\"} 4\n"), std::string::npos);
    EXPECT_NE(text.find("\ntovrin_controller_info{controller=\"198.18.0.1\"} 1\n"), std::string::npos);
    EXPECT_NE(text.find("\ntovrin_link_state_seconds 42\n"), std::string::npos);
}

}  // namespace
}  // namespace tovrinctl
