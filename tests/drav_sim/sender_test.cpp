// The controller's send queue in simulated time: numbering, one message on
// the wire at a time, the 1/2/4/8/16 s schedule and the give-up.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "tools/drav-sim/sender.h"

namespace {

// A small world around a sender: a clock, and what went out when.
struct world {
    dsim_sender s;
    double now = 0;
    std::map<int, std::vector<double>> sent;  // ctlr_trans -> transmission times
    std::map<int, std::vector<int>> tries;    // ctlr_trans -> tries of each transmission
    std::map<int, double> given_up;           // ctlr_trans -> when

    uint8_t send() {
        dsim_out_msg m;
        m.ctlr_trans = dsim_sender_number(s);
        dsim_sender_queue(s, m);
        apply(dsim_sender_run(s, now));
        return m.ctlr_trans;
    }
    void apply(const std::vector<dsim_tx_event> &ev) {
        for (const dsim_tx_event &e : ev) {
            if (e.kind == dsim_tx_kind::give_up) {
                given_up[e.ctlr_trans] = now;
                continue;
            }
            EXPECT_EQ(s.queue.front().ctlr_trans, e.ctlr_trans);
            EXPECT_EQ(e.kind == dsim_tx_kind::first, e.tries == 1);
            sent[e.ctlr_trans].push_back(now);
            tries[e.ctlr_trans].push_back(e.tries);
        }
    }
    // Advances the clock in 1 ms steps, running the sender whenever it is due.
    long ms = 0;
    void run_for(double seconds) {
        long end = ms + std::lround(seconds * 1000);
        while (ms < end) {
            now = static_cast<double>(++ms) / 1000.0;
            if (now >= dsim_sender_due(s)) apply(dsim_sender_run(s, now));
        }
    }
    dsim_ack_match ack(uint8_t trans) {
        int t = 0;
        double rtt = 0;
        dsim_ack_match m = dsim_sender_ack(s, trans, now, t, rtt);
        apply(dsim_sender_run(s, now));
        return m;
    }
};

void expect_sent_at(const world &w, int trans, std::vector<double> at) {
    auto it = w.sent.find(trans);
    std::vector<double> got = it == w.sent.end() ? std::vector<double>{} : it->second;
    ASSERT_EQ(got.size(), at.size()) << "ctlr_trans " << trans;
    for (std::size_t i = 0; i < at.size(); ++i) EXPECT_NEAR(got[i], at[i], 0.0015) << "transmission " << i;
}

}  // namespace

TEST(DravSimSender, NumbersRunOneTo255AndSkipZero) {
    dsim_sender s;
    std::vector<int> got;
    for (int i = 0; i < 257; ++i) got.push_back(dsim_sender_number(s));
    EXPECT_EQ(got[0], 1);
    EXPECT_EQ(got[254], 255);
    EXPECT_EQ(got[255], 1);
    EXPECT_EQ(got[256], 2);
}

TEST(DravSimSender, UnansweredMessageIsResentThenGivenUp) {
    world w;
    uint8_t a = w.send();
    uint8_t b = w.send();  // waits behind a
    w.run_for(30.9);
    expect_sent_at(w, a, {0, 1, 3, 7, 15});
    EXPECT_EQ(w.tries[a], (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(w.given_up.count(a), 0u);
    expect_sent_at(w, b, {});
    w.run_for(0.2);
    ASSERT_EQ(w.given_up.count(a), 1u);
    EXPECT_NEAR(w.given_up[a], 31.0, 0.0015);
    expect_sent_at(w, b, {31.0});  // the next one goes out at the give-up
}

TEST(DravSimSender, AcknowledgementStopsTheTimerAndReleasesTheNext) {
    world w;
    uint8_t a = w.send();
    uint8_t b = w.send();
    w.run_for(0.5);
    EXPECT_EQ(w.ack(b), dsim_ack_match::other);  // not the head: ignored
    w.run_for(2.0);
    expect_sent_at(w, a, {0, 1});
    EXPECT_EQ(w.ack(a), dsim_ack_match::matched);
    expect_sent_at(w, b, {2.5});
    w.run_for(0.9);  // b's first expiry is due at 3.5: nothing before it
    expect_sent_at(w, b, {2.5});
    EXPECT_EQ(w.ack(b), dsim_ack_match::matched);
    w.run_for(40);
    expect_sent_at(w, a, {0, 1});  // no resend after their acknowledgements
    expect_sent_at(w, b, {2.5});
    EXPECT_TRUE(w.given_up.empty());
    EXPECT_EQ(w.ack(a), dsim_ack_match::idle);
}
