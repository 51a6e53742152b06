// The send queue: fragments on the wire, the doubling retransmission timer,
// acknowledgements, transaction numbers, the queue bound and link loss.
#include <cstring>

#include "link/send_queue.h"
#include "platform/log.h"
#include "relay/relay.h"
#include "world.h"

namespace {

class SendQueue : public World {
protected:
    // Sends one small message and has the controller acknowledge it.
    void send_acked(int32_t src = 101) {
        const std::size_t before = data_sent().size();
        app_send(src, 5, 0, {0xee});
        ASSERT_EQ(data_sent().size(), before + 1);
        from_ctrl(ack_for(data_sent().back().bytes[11]));
    }
    static std::vector<uint8_t> header_of(const sim::Datagram &d) {
        return std::vector<uint8_t>(d.bytes.begin(), d.bytes.begin() + 12);
    }
    static std::vector<uint8_t> payload_of(const sim::Datagram &d) {
        return std::vector<uint8_t>(d.bytes.begin() + 12, d.bytes.end());
    }
    static std::vector<uint8_t> pattern(std::size_t n, uint8_t seed = 0) {
        std::vector<uint8_t> v(n);
        for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + seed);
        return v;
    }
    static std::string ap() { return strf("%p", static_cast<void *>(&tovrin_gbl)); }
};

TEST_F(SendQueue, ThreeThousandBytePayloadGoesOutInThreeFragmentsAndIsResentWhole) {
    bring_up();
    for (int i = 0; i < 8; ++i) send_acked();  // the next message is number 9
    // The controller's message 0x5a becomes the ctlr_trans of what the AP sends.
    from_ctrl(frame(0x24, 0, 0x5a, 0, plain_payload(7, 101, {1})));
    clear_captures();

    const std::vector<uint8_t> data = pattern(2988);
    app_send(0x01020304, 0x0a0b0c0d, TOVRIN_MSG_F_ACK_REQ, data);
    std::vector<uint8_t> payload = unhex("21000bb8 01020304 0a0b0c0d");
    payload.insert(payload.end(), data.begin(), data.end());
    ASSERT_EQ(payload.size(), 3000u);

    auto first = data_sent();
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(first[0].bytes.size(), 1036u);
    EXPECT_EQ(first[1].bytes.size(), 1036u);
    EXPECT_EQ(first[2].bytes.size(), 964u);
    EXPECT_EQ(hex(header_of(first[0])), "010c0400deadfeed25005a09");
    EXPECT_EQ(hex(header_of(first[1])), "010c0400deadfeed25015a09");
    EXPECT_EQ(hex(header_of(first[2])), "010c03b8deadfeed24025a09");
    std::vector<uint8_t> joined;
    for (const auto &d : first) {
        auto p = payload_of(d);
        joined.insert(joined.end(), p.begin(), p.end());
    }
    EXPECT_TRUE(joined == payload);

    // The first retransmission: same number, same bytes, the retransmission bit.
    run_answering(1 * kSec);
    auto all = data_sent();
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(hex(header_of(all[3])), "010c0400deadfeed27005a09");
    EXPECT_EQ(hex(header_of(all[4])), "010c0400deadfeed27015a09");
    EXPECT_EQ(hex(header_of(all[5])), "010c03b8deadfeed26025a09");
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(payload_of(all[3 + i]) == payload_of(first[i])) << i;

    // A controller message in between: the next retransmission carries its number.
    from_ctrl(frame(0x24, 0, 0x5b, 0, plain_payload(7, 101, {2})));
    run_answering(2 * kSec);
    all = data_sent();
    ASSERT_EQ(all.size(), 9u);
    EXPECT_EQ(hex(header_of(all[6])), "010c0400deadfeed27005b09");
    EXPECT_EQ(hex(header_of(all[8])), "010c03b8deadfeed26025b09");
}

TEST_F(SendQueue, UnansweredMessageGoesFiveTimesAndTheLinkFallsAtThirtyOneSeconds) {
    bring_up();
    clear_captures();
    const uint64_t t0 = sim::now_us();
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1, 2, 3});
    run_answering(40 * kSec);

    std::vector<uint64_t> at;
    std::vector<int> flags;
    for (const auto &d : data_sent()) {
        at.push_back(d.at_us - t0);
        flags.push_back(d.bytes[8]);
        EXPECT_EQ(d.bytes[11], 1);
    }
    EXPECT_EQ(at, (std::vector<uint64_t>{0, 1 * kSec, 3 * kSec, 7 * kSec, 15 * kSec}));
    EXPECT_EQ(flags, (std::vector<int>{0x24, 0x26, 0x26, 0x26, 0x26}));

    // Down at 31 s: the sender hears of the failure, the DOWN status goes out.
    EXPECT_EQ(tovrin_gbl.status, 0);
    EXPECT_EQ(tovrin_gbl.comm.head, nullptr);
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
    const auto answers = app_msgs_to("/vk/ipc/gelvar");
    ASSERT_EQ(answers.size(), 2u);  // the failure answer, then the status report
    EXPECT_EQ(sim::ipc_sent().front().at_us - t0, 31 * kSec);
    EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
    EXPECT_EQ(answers[0].hdr.len, 3u);
    EXPECT_TRUE(answers[0].data.empty());
    EXPECT_EQ(answers[1].hdr.flags, TOVRIN_MSG_F_STATUS);
    ASSERT_EQ(answers[1].data.size(), 8u);
    int32_t status = -1;
    std::memcpy(&status, answers[1].data.data() + 4, 4);
    EXPECT_EQ(status, 0);
    int downs = 0;
    for (const auto &l : sim::syslog_lines())
        if (l.text == "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1") {
            ++downs;
            EXPECT_EQ(l.at_us - t0, 31 * kSec);
        }
    EXPECT_EQ(downs, 1);
}

TEST_F(SendQueue, AckBeforeTheTimerStopsRetransmissionAndAnswersTheSender) {
    bring_up();
    clear_captures();
    const uint64_t t0 = sim::now_us();
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1, 2, 3});
    run_answering(2500 * kMs);
    from_ctrl(ack_for(1));
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
    EXPECT_EQ(tovrin_gbl.comm.ack_wait, 0);
    run_answering(40 * kSec);

    std::vector<uint64_t> at;
    for (const auto &d : data_sent()) at.push_back(d.at_us - t0);
    EXPECT_EQ(at, (std::vector<uint64_t>{0, 1 * kSec}));
    EXPECT_EQ(tovrin_gbl.status, 1);
    const auto answers = app_msgs_to("/vk/ipc/gelvar");
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ);
    EXPECT_EQ(sim::ipc_sent().front().at_us - t0, 2500 * kMs);
    for (const auto &l : sim::syslog_lines()) EXPECT_NE(l.text, "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1");
}

TEST_F(SendQueue, SecondMessageWaitsForTheFirstsAckThenGoesAtOnce) {
    bring_up();
    clear_captures();
    app_send(101, 5, 0, {0xa});
    const std::size_t mark = log_mark();
    app_send(102, 6, 0, {0xb});
    EXPECT_NE(log_since(mark).find(
                  strf("DBG: >>tovrin_tx_msg Queuing message to AP(%s) 198.18.0.1 - flags 0x24\n", ap().c_str())),
              std::string::npos);
    ASSERT_EQ(data_sent().size(), 1u);

    run_answering(2500 * kMs);
    for (const auto &d : data_sent()) EXPECT_EQ(d.bytes[11], 1);  // only the first, sent and resent
    ASSERT_EQ(data_sent().size(), 2u);

    const uint64_t t_ack = sim::now_us();
    from_ctrl(ack_for(1));
    auto all = data_sent();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].at_us, t_ack);
    EXPECT_EQ(hex(header_of(all[2])), "010c000ddeadfeed24000002");
    EXPECT_EQ(hex(payload_of(all[2])), "2100000d00000066000000060b");
    ASSERT_TRUE(sim::next_timeout_of(tovrin_msg_retry).has_value());
    EXPECT_EQ(*sim::next_timeout_of(tovrin_msg_retry), t_ack + 1 * kSec);
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 1u);

    // The first message's timer (due at 3 s) is gone; the second's fires at t_ack + 1 s.
    run_answering(1 * kSec);
    all = data_sent();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[3].at_us, t_ack + 1 * kSec);
    EXPECT_EQ(hex(header_of(all[3])), "010c000ddeadfeed26000002");
}

TEST_F(SendQueue, AckForAnotherNumberIsIgnoredAndTheHeadKeepsItsSchedule) {
    bring_up();
    for (int i = 0; i < 7; ++i) send_acked();
    clear_captures();
    const uint64_t t0 = sim::now_us();
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1});
    ASSERT_EQ(data_sent().size(), 1u);
    ASSERT_EQ(data_sent()[0].bytes[11], 8);

    const auto before = link_bytes();
    const std::size_t mark = log_mark();
    from_ctrl(ack_for(7));
    EXPECT_NE(log_since(mark).find(strf("NOTE: <<tovrin_recv_ack: Unrequested ack 7 expected 8 from AP(%s) "
                                        "198.18.0.1\n",
                                        ap().c_str())),
              std::string::npos);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_TRUE(app_msgs().empty());

    run_answering(1 * kSec);
    ASSERT_EQ(data_sent().size(), 2u);
    EXPECT_EQ(data_sent()[1].at_us - t0, 1 * kSec);
    EXPECT_EQ(data_sent()[1].bytes[11], 8);

    from_ctrl(ack_for(8));
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
}

TEST_F(SendQueue, AckWhileIdleIsOnlyLogged) {
    bring_up();
    send_acked();  // idle again after a completed message
    for (uint8_t trans : {uint8_t{1}, uint8_t{5}}) {
        SCOPED_TRACE(trans);
        clear_captures();
        const auto before = link_bytes();
        const std::size_t timers = sim::pending_timeouts();
        const std::size_t mark = log_mark();
        from_ctrl(ack_for(trans));
        EXPECT_NE(log_since(mark).find(strf("NOTE: <<tovrin_recv_ack: Ack rcvd not waiting data_len 0 from AP(%s) "
                                            "198.18.0.1  AP Trans %d\n",
                                            ap().c_str(), trans)),
                  std::string::npos);
        EXPECT_TRUE(link_bytes() == before);
        EXPECT_EQ(sim::pending_timeouts(), timers);
        EXPECT_TRUE(sent().empty());
        EXPECT_TRUE(app_msgs().empty());
    }
}

TEST_F(SendQueue, TransactionNumbersRunFromOneTo255ThenOneAgainAndNeverZero) {
    vk_log_conf_data[VK_LOG_W_LEVEL] = 1;  // hundreds of messages: keep the log small
    bring_up();
    clear_captures();
    std::vector<int> seen;
    for (int i = 0; i < 300; ++i) {
        app_send(101, 5, 0, {static_cast<uint8_t>(i)});
        ASSERT_EQ(data_sent().size(), static_cast<std::size_t>(i + 1));
        seen.push_back(data_sent().back().bytes[11]);
        from_ctrl(ack_for(data_sent().back().bytes[11]));
        ASSERT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    }
    std::vector<int> want;
    for (int i = 1; i <= 255; ++i) want.push_back(i);
    for (int i = 1; i <= 45; ++i) want.push_back(i);
    EXPECT_EQ(seen, want);
}

TEST_F(SendQueue, NumbersGoOnAfterALinkLossAndRestartAtOneOnANewSocket) {
    bring_up();
    for (int i = 0; i < 3; ++i) send_acked();
    clear_captures();
    app_send(101, 5, 0, {4});
    ASSERT_EQ(data_sent().back().bytes[11], 4);
    run_answering(31 * kSec);  // retries used up: the link falls on the same socket
    ASSERT_EQ(tovrin_gbl.status, 0);
    from_ctrl(reg_response());
    ASSERT_EQ(tovrin_gbl.status, 1);
    clear_captures();
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {5});
    ASSERT_EQ(data_sent().size(), 1u);
    EXPECT_EQ(data_sent()[0].bytes[11], 5);

    // A new controller address closes the socket with message 5 still in flight.
    clear_captures();
    bring_up();
    const auto failed = app_msgs_to("/vk/ipc/gelvar");
    ASSERT_GE(failed.size(), 1u);
    EXPECT_EQ(failed[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
    clear_captures();
    app_send(101, 5, 0, {6});
    ASSERT_EQ(data_sent().size(), 1u);
    EXPECT_EQ(data_sent()[0].bytes[11], 1);
}

TEST_F(SendQueue, FullQueueRefusesTheNextMessageWithAFailureAnswer) {
    vk_log_conf_data[VK_LOG_W_LEVEL] = 1;
    bring_up();
    clear_captures();
    for (int i = 0; i < TOVRIN_SEND_QUEUE_DEFAULT; ++i) app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1});
    ASSERT_EQ(tovrin_gbl.comm.msg_cnt, 256);
    EXPECT_TRUE(app_msgs().empty());
    EXPECT_EQ(data_sent().size(), 1u);

    const std::size_t mark = log_mark();
    app_send(102, 6, TOVRIN_MSG_F_ACK_REQ, {2});
    EXPECT_NE(
        log_since(mark).find("NOTE: <<tovrin_proc_send_msg: Failed Sending from tester to 6 msg flags 0x01000100\n"),
        std::string::npos);
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 256);
    auto answers = app_msgs_to("/vk/ipc/hostun");
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
    EXPECT_EQ(answers[0].envelope_flags, VK_IPC_F_NOTIFY);
    EXPECT_EQ(data_sent().size(), 1u);

    // Room again after one acknowledgement; the refusal took no number: after
    // 1..255 and 1, the next message is 2.
    from_ctrl(ack_for(1));
    app_send(102, 6, 0, {3});
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 256);
    std::vector<int> order;
    for (int i = 0; i < 256; ++i) {
        const uint8_t head = data_sent().back().bytes[11];
        order.push_back(head);
        from_ctrl(ack_for(head));
    }
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    ASSERT_EQ(order.size(), 256u);
    EXPECT_EQ(order[0], 2);
    EXPECT_EQ(order[253], 255);
    EXPECT_EQ(order[254], 1);
    EXPECT_EQ(order[255], 2);
    EXPECT_EQ(hex(payload_of(data_sent().back())),
              "2100000d0000006600000006"
              "03");
}

TEST_F(SendQueue, FragmentBoundaryAt1024PayloadBytes) {
    struct Row {
        std::size_t data;
        std::vector<std::string> headers;  // one per datagram
        std::vector<std::size_t> sizes;
    };
    const Row rows[] = {
        {1012, {"010c0400deadfeed24000001"}, {1036}},
        {1013, {"010c0400deadfeed25000002", "010c0001deadfeed24010002"}, {1036, 13}},
        {16372,
         {"010c0400deadfeed25000003", "010c0400deadfeed25010003", "010c0400deadfeed25020003",
          "010c0400deadfeed25030003", "010c0400deadfeed25040003", "010c0400deadfeed25050003",
          "010c0400deadfeed25060003", "010c0400deadfeed25070003", "010c0400deadfeed25080003",
          "010c0400deadfeed25090003", "010c0400deadfeed250a0003", "010c0400deadfeed250b0003",
          "010c0400deadfeed250c0003", "010c0400deadfeed250d0003", "010c0400deadfeed250e0003",
          "010c0400deadfeed240f0003"},
         std::vector<std::size_t>(16, 1036)},
    };
    // 16372 data bytes fit no IPC message, so that row goes in through the queue directly.
    bring_up();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.data);
        clear_captures();
        const std::vector<uint8_t> data = pattern(r.data, 3);
        if (r.data + TOVRIN_APP_HDR_LEN <= VK_IPC_PAYLOAD_MAX) {
            app_send(101, 5, 0, data);
        } else {
            tovrin_app_msg_t h{};
            h.src_ep = 101;
            h.dst_ep = 5;
            h.len = static_cast<uint32_t>(r.data);
            ASSERT_NE(tovrin_new_send_msg(&tovrin_gbl, &h, data.data()), nullptr);
        }
        const auto all = data_sent();
        ASSERT_EQ(all.size(), r.headers.size());
        std::vector<uint8_t> joined;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(hex(header_of(all[i])), r.headers[i]);
            EXPECT_EQ(all[i].bytes.size(), r.sizes[i]);
            auto p = payload_of(all[i]);
            joined.insert(joined.end(), p.begin(), p.end());
        }
        ASSERT_EQ(joined.size(), r.data + 12);
        EXPECT_EQ(tovrin_load16(&joined[2]), (r.data + 12) & 0xffff);
        EXPECT_TRUE(std::vector<uint8_t>(joined.begin() + 12, joined.end()) == data);
        from_ctrl(ack_for(all[0].bytes[11]));
        EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    }
}

TEST_F(SendQueue, LinkLossFailsAndFreesEveryQueuedMessage) {
    struct Case {
        const char *how;
        bool by_retries;  // else by a new controller address
    };
    for (const Case c : {Case{"retries used up", true}, Case{"new controller address", false}}) {
        SCOPED_TRACE(c.how);
        bring_up();
        clear_captures();
        app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1}, "first");
        app_send(102, 6, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_SYNC, {2, 2}, "second");
        app_send(105, 7, 0, {3, 3, 3}, "third");
        ASSERT_EQ(tovrin_gbl.comm.msg_cnt, 3);
        ASSERT_EQ(data_sent().size(), 1u);  // only the head is on the wire
        const std::size_t mark = log_mark();
        if (c.by_retries)
            run_answering(31 * kSec);
        else
            set_controller();
        EXPECT_EQ(tovrin_gbl.status, 0);
        EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
        EXPECT_EQ(tovrin_gbl.comm.head, nullptr);
        EXPECT_EQ(tovrin_gbl.comm.tail, &tovrin_gbl.comm.head);
        EXPECT_EQ(tovrin_gbl.comm.ack_wait, 0);
        EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
        for (const auto &d : data_sent()) EXPECT_EQ(d.bytes[11], data_sent()[0].bytes[11]);

        const std::string log = log_since(mark);
        EXPECT_NE(log.find("INFO: >>tovrin_ap_msg_failed<<: to ep 5 from first len 1 flags 0x00000100\n"),
                  std::string::npos);
        EXPECT_NE(log.find("INFO: >>tovrin_ap_msg_failed<<: to ep 6 from second len 2 flags 0x00000300\n"),
                  std::string::npos);
        EXPECT_NE(log.find("INFO: >>tovrin_ap_msg_failed<<: to ep 7 from third len 3 flags 0x00000000\n"),
                  std::string::npos);

        auto to = [&](const std::string &peer) {
            std::vector<AppSeen> out;
            for (const auto &a : app_msgs_to(peer))
                if (!(a.hdr.flags & TOVRIN_MSG_F_STATUS)) out.push_back(a);
            return out;
        };
        const auto first = to("/vk/ipc/gelvar");
        ASSERT_EQ(first.size(), 1u);
        EXPECT_EQ(first[0].hdr.flags, 0x1000100u);
        EXPECT_EQ(first[0].envelope_flags, VK_IPC_F_NOTIFY);
        EXPECT_EQ(first[0].kind, VK_IPC_KIND_NOTIFY);
        EXPECT_STREQ(first[0].hdr.src_name, "first");
        const auto second = to("/vk/ipc/hostun");
        ASSERT_EQ(second.size(), 1u);
        EXPECT_EQ(second[0].hdr.flags, 0x1000300u);
        EXPECT_EQ(second[0].envelope_flags, VK_IPC_F_RESPONSE);
        EXPECT_EQ(second[0].kind, VK_IPC_KIND_RESP);
        EXPECT_EQ(second[0].hdr.len, 2u);
        EXPECT_TRUE(to("/vk/ipc/prindal").empty());
    }
}

}  // namespace
