// The send queue: fragments, the doubling retransmission timer, acknowledgements,
// transaction numbers, the queue bound and what a link loss does to the queue.
#include "link/send_queue.h"
#include "world.h"

namespace {

class SendQueue : public World {
protected:
    static std::string head_of(const sim::Datagram &d) { return hex({d.bytes.begin(), d.bytes.begin() + 12}); }
    uint8_t last_trans() const { return data_sent().back().bytes[11]; }
};

// Once with datagram bursts, once on a kernel without them: the same datagrams.
class SendQueueBursts : public SendQueue, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(KernelWithoutBursts, SendQueueBursts, ::testing::Bool());

TEST_P(SendQueueBursts, FragmentsGoOutAndAreResentWholeUntilTheLinkFalls) {
    sim::udp_burst_missing(GetParam());
    bring_up();
    const std::size_t before = app_msgs_to("/vk/ipc/hostun").size();
    // Three fragments waiting together are read in one go, or one per wakeup.
    for (const auto &f : fragments(plain_payload(200, 102, std::vector<uint8_t>(2500, 0x3c)), 9))
        sim::udp_inject(kCtrl, f);
    sim::settle();
    ASSERT_EQ(app_msgs_to("/vk/ipc/hostun").size(), before + 1);
    EXPECT_EQ(app_msgs_to("/vk/ipc/hostun").back().data, std::vector<uint8_t>(2500, 0x3c));
    EXPECT_EQ(log_count("no recvmmsg here"), GetParam() ? 1 : 0);
    from_ctrl(frame(0x24, 0, 0x5a, 0, plain_payload(7, 101, {1})));  // its number goes in our headers
    clear_captures();
    const uint64_t t0 = sim::now_us();
    const auto data = pattern(2988);
    app_send(101, 0x0a0b0c0d, TOVRIN_MSG_F_ACK_REQ, data);
    std::vector<uint8_t> joined;
    for (const auto &d : data_sent()) joined.insert(joined.end(), d.bytes.begin() + 12, d.bytes.end());
    std::vector<uint8_t> payload = unhex("21000bb8 00000065 0a0b0c0d");
    payload.insert(payload.end(), data.begin(), data.end());
    EXPECT_TRUE(joined == payload);
    EXPECT_EQ(log_count("no sendmmsg here"), GetParam() ? 1 : 0);

    run_answering(40 * kSec);
    const auto all = data_sent();
    ASSERT_EQ(all.size(), 15u);  // five transmissions of three fragments
    const char *heads[] = {"010c0400deadfeed25005a01", "010c0400deadfeed25015a01", "010c03b8deadfeed24025a01",
                           "010c0400deadfeed27005a01", "010c0400deadfeed27015a01", "010c03b8deadfeed26025a01"};
    for (int i = 0; i < 15; ++i) {
        EXPECT_EQ(head_of(all[i]), heads[i < 3 ? i : 3 + i % 3]) << i;
        EXPECT_EQ(all[i].at_us - t0, (i < 3 ? 0 : (1u << (i / 3)) - 1) * kSec) << i;
    }
    EXPECT_EQ(log_count("- Retry 5\n"), 1);
    // Down at 31 s: the sender hears of the failure first, then of the status.
    EXPECT_EQ(tovrin_gbl.status, 0);
    const auto answers = app_msgs_to("/vk/ipc/gelvar");
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(sim::ipc_sent().front().at_us - t0, 31 * kSec);
    EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
}

TEST_F(SendQueue, OneMessageInFlightAndOnlyItsAckCounts) {
    bring_up();
    for (int i = 0; i < 300; ++i) {  // numbers run 1..255, then 1 again, never 0
        app_send(101, 5, 0, {1});
        ASSERT_EQ(last_trans(), i % 255 + 1);
        from_ctrl(ack_for(last_trans()));
    }
    clear_captures();
    const uint64_t t0 = sim::now_us();
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {0xa});
    app_send(102, 6, 0, {0xb});  // waits behind the first
    from_ctrl(ack_for(45));      // another number: ignored
    run_answering(2500 * kMs);
    ASSERT_EQ(data_sent().size(), 2u);
    EXPECT_EQ(head_of(data_sent()[1]), "010c000ddeadfeed2600002e");
    EXPECT_EQ(data_sent()[1].at_us - t0, kSec);
    EXPECT_TRUE(app_msgs().empty());

    from_ctrl(ack_for(46));  // the second goes at once, its timer a second later
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(app_msgs_to("/vk/ipc/gelvar")[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ);
    ASSERT_EQ(data_sent().size(), 3u);
    const auto second = data_sent()[2].bytes;
    EXPECT_EQ(hex({second.begin() + 8, second.end()}), "2400002f2100000d00000066000000060b");
    EXPECT_EQ(data_sent()[2].at_us, sim::now_us());
    EXPECT_EQ(*sim::next_timeout_of(tovrin_msg_retry), sim::now_us() + kSec);
    from_ctrl(ack_for(47));
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
}

TEST_F(SendQueue, FullQueueRefusesAndALinkLossFailsEveryQueuedMessage) {
    set_level(1);  // hundreds of messages: keep the log small
    bring_up();
    clear_captures();
    for (int i = 0; i < TOVRIN_SEND_QUEUE_DEFAULT; ++i) app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1});
    app_send(102, 6, TOVRIN_MSG_F_ACK_REQ, {2});
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, TOVRIN_SEND_QUEUE_DEFAULT);
    ASSERT_EQ(app_msgs().size(), 1u);
    EXPECT_EQ(app_msgs_to("/vk/ipc/hostun").at(0).hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
    EXPECT_EQ(data_sent().size(), 1u);

    set_controller();  // a new address closes the socket: everything queued fails
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    EXPECT_EQ(tovrin_gbl.comm.tail, &tovrin_gbl.comm.head);
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
    EXPECT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), TOVRIN_SEND_QUEUE_DEFAULT + 1u);  // and the status
    from_ctrl(reg_response());
    clear_captures();
    app_send(101, 5, 0, {6});  // a new socket numbers from 1 again
    EXPECT_EQ(last_trans(), 1);
}

}  // namespace
