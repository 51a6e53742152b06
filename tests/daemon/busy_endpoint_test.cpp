// A local endpoint that cannot take a message yet (its queue full): what the
// controller sent, and what local senders are owed, waits and arrives in
// order once it reads again; other endpoints are not held up; a stuck endpoint
// costs bounded memory and every message given up is logged. An endpoint that
// stops reading with a long queue of its own is left to the end-to-end tests.
#include "core/counters.h"
#include "relay/app_msg.h"
#include "relay/backlog.h"
#include "world.h"

namespace {

class BusyEndpoint : public World {
protected:
    static constexpr const char *kPrindal = "/vk/ipc/prindal";  // endpoint 105
    static constexpr const char *kGelvar = "/vk/ipc/gelvar";    // endpoint 101

    // Controller message n for endpoint dst: data bytes {n, n+1, ...} of length len.
    void deliver(int32_t dst, uint8_t n, std::size_t len = 8) {
        std::vector<uint8_t> data(len);
        for (std::size_t i = 0; i < len; ++i) data[i] = static_cast<uint8_t>(n + i);
        for (const auto &f : fragments(plain_payload(200, dst, data), trans_)) from_ctrl(f);
        trans_ = trans_ == 255 ? 1 : trans_ + 1;  // a new message every time
    }
    // First data byte of every message that reached peer, in arrival order.
    std::vector<uint8_t> arrived(const std::string &peer) const {
        std::vector<uint8_t> out;
        for (const auto &m : sim::ipc_sent())
            if (m.delivered && m.peer == peer && m.type == TOVRIN_IPC_APP_MSG) {
                const AppSeen a = decode_app(m);
                if (!(a.hdr.flags & TOVRIN_MSG_F_STATUS) && !a.data.empty()) out.push_back(a.data[0]);
            }
        return out;
    }
    uint8_t trans_ = 1;
    std::size_t pending_without_backlog_ = 0;
    void SetUp() override {
        World::SetUp();
        bring_up();
        pending_without_backlog_ = sim::pending_timeouts();
        clear_captures();
    }
};

TEST_F(BusyEndpoint, MessagesWaitInOrderAndArriveOnceTheEndpointReads) {
    sim::ipc_set_full(kPrindal, true);
    for (uint8_t n = 1; n <= 3; ++n) deliver(105, n * 10);
    EXPECT_EQ(sent().size(), 3u);  // all acknowledged to the controller at once
    EXPECT_TRUE(arrived(kPrindal).empty());
    EXPECT_EQ(tovrin_backlog_count(), 3u);
    // Another endpoint is not held up by the busy one.
    deliver(101, 99);
    EXPECT_EQ(arrived(kGelvar), std::vector<uint8_t>{99});

    // Still full: retried, nothing lost, nothing out of order.
    run_answering(100 * kMs);
    EXPECT_TRUE(arrived(kPrindal).empty());
    EXPECT_EQ(tovrin_backlog_count(), 3u);

    // A message arriving while others wait goes behind them even though the
    // endpoint could take it now: it arrives in the same instant, after them.
    sim::ipc_set_full(kPrindal, false);
    deliver(105, 40);
    EXPECT_EQ(arrived(kPrindal), (std::vector<uint8_t>{10, 20, 30, 40}));
    EXPECT_EQ(tovrin_backlog_count(), 0u);

    // Nothing waits: no timer is left, and later messages go at once.
    EXPECT_EQ(sim::pending_timeouts(), pending_without_backlog_);
    clear_captures();
    run_answering(kSec);
    deliver(105, 50);
    EXPECT_EQ(arrived(kPrindal), std::vector<uint8_t>{50});
}

TEST_F(BusyEndpoint, AStuckEndpointIsGivenUpAfterTwoSecondsWithANote) {
    sim::ipc_set_full(kPrindal, true);
    sim::ipc_set_full(kGelvar, true);
    deliver(105, 7);
    run_answering(500 * kMs);
    deliver(105, 8);  // waits behind the first, for less time itself
    deliver(101, 9);
    tovrin_counters_t c;
    tovrin_counters_read(&c);
    EXPECT_EQ(c.backlog_depth, 3u);
    EXPECT_EQ(c.backlog_depth_by_ep[0], 1u);  // 101, first in the endpoint table
    EXPECT_EQ(c.backlog_depth_by_ep[2], 2u);  // 105, third
    sim::ipc_set_full(kGelvar, false);
    run_answering(TOVRIN_BACKLOG_STUCK_US - 500 * kMs - 1);
    EXPECT_EQ(arrived(kGelvar), std::vector<uint8_t>{9});
    EXPECT_EQ(tovrin_backlog_count(), 2u);
    // It has taken nothing for two seconds: the endpoint is stuck, and
    // everything waiting for it goes, each with a note, and counts as given up.
    run_answering(1);
    EXPECT_EQ(tovrin_backlog_count(), 0u);
    EXPECT_EQ(log_count(strf("NOTE: tovrin_backlog: IPC msg type %u of %u bytes for /vk/ipc/prindal "
                             "dropped, endpoint busy for 2 s\n",
                             TOVRIN_IPC_APP_MSG, static_cast<unsigned>(TOVRIN_APP_HDR_LEN + 8))),
              2);
    tovrin_counters_read(&c);
    EXPECT_EQ(c.down_messages_delivered, 1u);
    EXPECT_EQ(c.down_messages_dropped, 2u);
    EXPECT_EQ(c.backlog_dropped, 2u);
    EXPECT_EQ(c.backlog_dropped_by_ep[0], 0u);
    EXPECT_EQ(c.backlog_dropped_by_ep[2], 2u);
    EXPECT_EQ(c.refused[TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK], 2u);
    sim::ipc_set_full(kPrindal, false);
    run_answering(kSec);
    EXPECT_TRUE(arrived(kPrindal).empty());
    // Once it reads again, new messages reach it.
    deliver(105, 10);
    EXPECT_EQ(arrived(kPrindal), std::vector<uint8_t>{10});
}

TEST_F(BusyEndpoint, WhenWaitingIsFullControllerMessagesAreLeftToTheirRetransmission) {
    sim::ipc_set_full(kPrindal, true);
    // Bound in messages: small ones all wait, each acknowledged.
    for (std::size_t i = 0; i < TOVRIN_BACKLOG_MAX_MSGS; ++i) deliver(105, static_cast<uint8_t>(i));
    EXPECT_EQ(tovrin_backlog_count(), TOVRIN_BACKLOG_MAX_MSGS);
    EXPECT_EQ(sent().size(), TOVRIN_BACKLOG_MAX_MSGS);

    // One more could not wait: not acknowledged, not delivered, nothing dropped.
    clear_captures();
    std::size_t mark = log_mark();
    const auto payload = plain_payload(200, 105, {0xee, 1, 2});
    const uint8_t trans = 0x77;
    for (const auto &f : fragments(payload, trans)) from_ctrl(f);
    EXPECT_TRUE(sent().empty());
    EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_recv_data: Local endpoints busy, msg 119 from 198.18.0.1 left to "
                                   "its retransmission\n"),
              std::string::npos);
    EXPECT_EQ(log_since(mark).find("dropped"), std::string::npos);
    EXPECT_EQ(tovrin_backlog_count(), TOVRIN_BACKLOG_MAX_MSGS);
    // Its number is taken all the same: what the access point sends next carries it.
    app_send(101, 200, 0, {1, 2, 3});
    ASSERT_EQ(data_sent().size(), 1u);
    EXPECT_EQ(data_sent()[0].bytes[10], trans);
    from_ctrl(ack_for(data_sent()[0].bytes[11]));

    // The endpoint reads; the controller's retransmission is taken as new,
    // acknowledged and delivered once, after everything that waited.
    sim::ipc_set_full(kPrindal, false);
    sim::settle();
    EXPECT_EQ(arrived(kPrindal).size(), TOVRIN_BACKLOG_MAX_MSGS);
    clear_captures();
    for (const auto &f : fragments(payload, trans, true)) from_ctrl(f);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].bytes[8] & TOVRIN_F_ACK, TOVRIN_F_ACK);
    EXPECT_EQ(sent()[0].bytes[10], trans);
    EXPECT_EQ(arrived(kPrindal), std::vector<uint8_t>{0xee});
    // So is the resend of a later message, under the complement of that number, whose first transmission was lost.
    for (const auto &f : fragments(plain_payload(200, 101, {0x22}), static_cast<uint8_t>(~trans), true)) from_ctrl(f);
    EXPECT_EQ(arrived(kGelvar), std::vector<uint8_t>{0x22});

    // Bound in bytes: large messages reach it before the count.
    clear_captures();
    sim::ipc_set_full(kPrindal, true);
    const std::size_t big = 16000, each = VK_IPC_HDR_LEN + TOVRIN_APP_HDR_LEN + big;
    const std::size_t fit = TOVRIN_BACKLOG_MAX_BYTES / each;
    for (std::size_t i = 0; i < fit + 1; ++i) deliver(105, static_cast<uint8_t>(i), big);
    EXPECT_EQ(tovrin_backlog_count(), fit);
    EXPECT_EQ(data_sent().size() + sent().size(), fit);  // acknowledgements: the last one got none
}

TEST_F(BusyEndpoint, AnEndpointThatGoesAwayWhileItsMessagesWaitLosesThemWithANote) {
    sim::ipc_set_full(kPrindal, true);
    deliver(105, 1);
    deliver(105, 2);
    sim::ipc_set_full(kPrindal, false);
    sim::ipc_set_missing(kPrindal, true);
    const std::size_t mark = log_mark();
    sim::settle();
    EXPECT_EQ(tovrin_backlog_count(), 0u);
    const std::string log = log_since(mark);
    EXPECT_NE(log.find("for /vk/ipc/prindal dropped, No such file or directory\n"), std::string::npos);
    // An endpoint that is simply not running is not waited for.
    deliver(105, 3);
    EXPECT_EQ(tovrin_backlog_count(), 0u);
}

}  // namespace
