// Keepalives, the rate table and link loss, in virtual time.
#include <cstring>

#include "core/ipc_codes.h"
#include "session/keepalive.h"
#include "world.h"

namespace {

using Table = std::vector<std::pair<int32_t, uint32_t>>;

Table table() {
    Table t;
    for (const auto &s : ka_rate_arr)
        if (s.app_id != -1) t.emplace_back(s.app_id, s.rate);
    return t;
}

}  // namespace

using Keepalive = World;

TEST_F(Keepalive, RequestIsByteExact) {
    sim::set_uptime(77);
    bring_up();
    auto ka = sent_with_payload_type(TOVRIN_CTRL_KEEPALIVE);
    ASSERT_EQ(ka.size(), 1u);
    EXPECT_EQ(hex(ka[0].bytes),
              "010c0024deadfeeda0000000"
              "20000024"
              "534e2d544553542d3030303100000000"
              "0000004d"
              "0013a9c0ffee"
              "0000"
              "00001388");
}

// Answered until 5.5 s: keepalives at 0..8 s, and the tick at 9 s, the fourth
// after the last answer, takes the link down. Registration starts again at
// once, then after twice the interval the first chain kept, then every 16 s.
TEST_F(Keepalive, ThreeUnansweredTakeTheLinkDownAtTheFourthTickAndRegistrationRestarts) {
    set_controller();
    from_ctrl(reg_response());
    sim::run_for(500 * kMs);
    for (int i = 0; i < 6; ++i) {
        from_ctrl(ka_response());
        sim::run_for(kSec);
    }
    sim::run_for(28 * kSec - sim::now_us());
    EXPECT_EQ(times_of(TOVRIN_CTRL_KEEPALIVE), secs({0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(times_of(TOVRIN_CTRL_REGISTER), secs({0, 9, 11, 27}));
    EXPECT_EQ(tovrin_gbl.status, 0);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_keepalive), 0u);
    ASSERT_EQ(sim::syslog_lines().size(), 2u);
    EXPECT_EQ(sim::syslog_lines()[1].text, "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1");
    EXPECT_EQ(sim::syslog_lines()[1].at_us, 9 * kSec);
}

TEST_F(Keepalive, ResponseCountsWhateverTheLinkState) {
    set_controller();
    tovrin_gbl.ka_miss_cnt = 2;
    from_ctrl(ka_response());
    EXPECT_EQ(tovrin_gbl.ka_miss_cnt, 0u);
}

// One rate notification a row, in order: the table after it (used slots first,
// by rate), the rate the link runs at and the line that says so, or why not.
TEST_F(Keepalive, RateTableStaysSortedWithUsedSlotsFirst) {
    struct Row {
        int32_t app;
        uint32_t rate;
        Table table;
        uint32_t ka_rate;
        const char *refusal = nullptr;
    };
    const Table three = {{7, 3000}, {9, 4000}};
    const Row rows[] = {
        {7, 3000, {{7, 3000}}, 3000},
        {9, 1000, {{9, 1000}, {7, 3000}}, 1000},
        {5, 2000, {{9, 1000}, {5, 2000}, {7, 3000}}, 1000},
        {9, 4000, {{5, 2000}, {7, 3000}, {9, 4000}}, 2000},
        {5, 0, three, 3000},
        {8, 0, three, 3000, "NOTE: <<tovrin_proc_karate: No rate set for appid 8\n"},
        {5, 99, three, 3000, "Rate 99 for appid 5 outside 100..3600000, ignored"},
        {5, 3600001, three, 3000, "outside 100..3600000, ignored"},
        {5, 21474837, three, 3000, "outside 100..3600000, ignored"},
        {5, 0xffffffff, three, 3000, "outside 100..3600000, ignored"},
        {-1, 1000, three, 3000, "NOTE: <<tovrin_proc_karate: Invalid appid -1, ignored\n"},
        {5, 100, {{5, 100}, {7, 3000}, {9, 4000}}, 100},
        {6, 3600000, {{5, 100}, {7, 3000}, {9, 4000}, {6, 3600000}}, 100},
        {5, 0, {{7, 3000}, {9, 4000}, {6, 3600000}}, 3000},
        {7, 0, {{9, 4000}, {6, 3600000}}, 4000},
        {6, 0, {{9, 4000}}, 4000},
        {9, 0, {}, 5000},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << r.app << " " << r.rate);
        const std::size_t mark = log_mark();
        karate(r.app, r.rate);
        EXPECT_EQ(table(), r.table);
        EXPECT_EQ(tovrin_gbl.ka_rate, r.ka_rate);
        const std::string line =
            r.refusal ? r.refusal : strf("INFO: <<tovrin_proc_karate: Update keepalive rate to %u\n", r.ka_rate);
        EXPECT_NE(log_since(mark).find(line), std::string::npos) << log_since(mark);
    }
    EXPECT_TRUE(logged("INFO: >>tovrin_proc_karate: Update keepalive rate app 9 to 0\n"));
}

TEST_F(Keepalive, EqualRatesKeepArrivalOrderAndAFullTableRefusesMore) {
    karate(1, 2000);
    karate(2, 2000);
    karate(3, 2000);
    EXPECT_EQ(table(), (Table{{1, 2000}, {2, 2000}, {3, 2000}}));
    for (int32_t app = 4; app <= 10; ++app) karate(app, 9000 - static_cast<uint32_t>(app));
    Table full = table();
    ASSERT_EQ(full.size(), 10u);
    karate(11, 500);
    EXPECT_EQ(table(), full);
    EXPECT_EQ(tovrin_gbl.ka_rate, 2000u);
}

TEST_F(Keepalive, ShorterRateRestartsTheTimerOnlyWhileUp) {
    karate(7, 3000);  // down: no keepalive, no timer
    EXPECT_TRUE(sent_with_payload_type(TOVRIN_CTRL_KEEPALIVE).empty());
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_keepalive), 0u);
    karate(7, 0);
    bring_up();  // ka_rate 5000 from the empty table: ticks of 1 s
    sim::run_for(300 * kMs);
    from_ctrl(ka_response());
    karate(7, 3000);  // at 0.3 s: shorter, so a keepalive now and every 600 ms
    sim::run_for(kSec);
    std::vector<uint64_t> t = times_of(TOVRIN_CTRL_KEEPALIVE);
    ASSERT_GE(t.size(), 3u);
    EXPECT_EQ(t[0], 0u);
    EXPECT_EQ(t[1], 300 * kMs);
    EXPECT_EQ(t[2], 900 * kMs);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_keepalive), 1u);
    // An equal or longer rate does not restart: the pending tick runs out on the old period.
    uint64_t next = *sim::next_timeout_of(tovrin_send_keepalive);
    karate(8, 1);  // refused, no effect
    karate(8, 3000);
    EXPECT_EQ(*sim::next_timeout_of(tovrin_send_keepalive), next);
    karate(7, 4000);
    EXPECT_EQ(*sim::next_timeout_of(tovrin_send_keepalive), next);
}

TEST_F(Keepalive, SocketSetUpTakesTheRateOfTheFirstSlot) {
    karate(3, 2000);
    set_controller();
    EXPECT_EQ(tovrin_gbl.ka_rate, 2000u);
    auto req = sent_with_payload_type(TOVRIN_CTRL_REGISTER).at(0);
    EXPECT_EQ(hex({req.bytes.end() - 8, req.bytes.end() - 4}), "000007d0");
}
