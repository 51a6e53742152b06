// The counters: every refusal counts under its own reason and nowhere else,
// and after traffic, loss and link flaps they account for every message.
#include <csignal>
#include <cstring>
#include <functional>

#include "core/counters.h"
#include "core/ipc_codes.h"
#include "core/signals.h"
#include "link/send_queue.h"
#include "relay/backlog.h"
#include "session/keepalive.h"
#include "world.h"

namespace {

const std::vector<uint8_t> kKey = unhex("000102030405060708090a0b0c0d0e0f");

class Counters : public World {
protected:
    static std::vector<uint8_t> good(uint8_t trans, int32_t dst = 101, uint8_t flags = 0x24) {
        return frame(flags, 0, trans, 0, plain_payload(9, dst, {'h', 'i', '!'}));
    }
    // Endpoint 101 full, and as many of the controller's messages waiting for it as the room takes.
    void fill_waiting_room() {
        set_level(1);
        sim::ipc_set_full("/vk/ipc/gelvar", true);
        for (std::size_t i = 0; i < TOVRIN_BACKLOG_MAX_MSGS; ++i) from_ctrl(good(static_cast<uint8_t>(i)));
        ASSERT_EQ(tovrin_backlog_count(), TOVRIN_BACKLOG_MAX_MSGS);
        set_level(4);
    }
    // The counters as the stats request answers them.
    tovrin_counters_t asked() {
        sim::ipc_clear_sent();
        request(TOVRIN_IPC_GET_STATS, {});
        tovrin_counters_t c{};
        const auto &sent = sim::ipc_sent();
        if (sent.size() == 1 && sent[0].payload.size() == sizeof c)
            std::memcpy(&c, sent[0].payload.data(), sizeof c);
        else
            ADD_FAILURE() << "no record of " << sizeof c << " bytes in answer";
        return c;
    }
};

TEST_F(Counters, EveryRefusalCountsUnderItsOwnReasonOnly) {
    struct Row {
        tovrin_refusal_t reason;
        std::function<void()> before, act;  // both with the link up
    };
    auto with = [](std::vector<uint8_t> d, std::initializer_list<std::pair<std::size_t, uint8_t>> edits) {
        for (auto [at, v] : edits) d[at] = v;
        return d;
    };
    auto with_len = [](std::vector<uint8_t> p, uint16_t len) {
        tovrin_store16(&p[2], len);
        return p;
    };
    // What most rows do: this one datagram arrives.
    auto send = [this](std::vector<uint8_t> d, uint32_t src = kCtrl) { return [this, d, src] { from_ctrl(d, src); }; };
    auto send_all = [this](std::vector<std::vector<uint8_t>> ds) {
        return [this, ds] {
            for (const auto &d : ds) from_ctrl(d);
        };
    };
    auto keyed = [&] { set_key(kKey); };
    const std::vector<uint8_t> g = good(0x11);
    const auto three = fragments(plain_payload(9, 101, pattern(2488)), 0x12);
    std::vector<uint8_t> enc = enc_payload(9, 101, {'s', 'e', 'c'}, kKey, std::vector<uint8_t>(16, 7));
    ASSERT_FALSE(enc.empty());
    enc[TOVRIN_DOFF_MD5] ^= 1;
    std::vector<uint8_t> raw_enc(32, 0x44);
    raw_enc[0] = '&';
    tovrin_store16(&raw_enc[2], 32);
    std::vector<uint8_t> typed = plain_payload(9, 101, {1, 2, 3});
    typed[0] = 0x22;
    const auto big = fragments(plain_payload(9, 101, pattern(TOVRIN_APP_MAX_DATA + 1)), 0x13);
    std::vector<std::vector<uint8_t>> most;  // 16 fragments of 1024 bytes: as much as a message may hold
    for (uint8_t f = 0; f < 16; ++f) most.push_back(frame(0x25, f, 0x14, 0, std::vector<uint8_t>(1024, 0x21)));
    auto message = [&](const std::vector<uint8_t> &payload) { return send(frame(0x24, 0, 0x15, 0, payload)); };

    const Row rows[] = {
        {TOVRIN_REFUSED_SHORT_DATAGRAM, {}, send({g.begin(), g.begin() + 11})},
        {TOVRIN_REFUSED_BAD_HEADER_LENGTH, {}, send(with(g, {{1, 11}}))},
        {TOVRIN_REFUSED_TRUNCATED, {}, send(with(g, {{3, 16}}))},
        {TOVRIN_REFUSED_TRAILING_BYTES, {}, send(with(g, {{3, 14}}))},
        {TOVRIN_REFUSED_BAD_VERSION, {}, send(with(g, {{0, 2}}))},
        {TOVRIN_REFUSED_BAD_MAGIC, {}, send(with(g, {{6, 0xbe}, {7, 0xef}}))},
        {TOVRIN_REFUSED_CONTROL_FROM_STRANGER, {}, send(ka_response(), kOther)},
        {TOVRIN_REFUSED_DATA_FROM_STRANGER, {}, send(g, kOther)},
        {TOVRIN_REFUSED_ACK_NOT_WAITING, {}, send(ack_for(1))},
        {TOVRIN_REFUSED_ACK_UNEXPECTED, [&] { app_send(105, 102, 0, {1}); }, send(ack_for(9))},
        {TOVRIN_REFUSED_FRAGMENT_BEFORE_FIRST, {}, send(three[1])},
        {TOVRIN_REFUSED_FRAGMENT_OUT_OF_ORDER, send(three[0]), send(three[2])},
        {TOVRIN_REFUSED_MESSAGE_REPEATED, send(g), send(with(g, {{8, 0x26}}))},
        {TOVRIN_REFUSED_FRAGMENT_UNEXPECTED, send(g), send(with(g, {{8, 0x26}, {9, 1}}))},
        {TOVRIN_REFUSED_MESSAGE_TOO_BIG, send_all(most), send(frame(0x25, 16, 0x14, 0, {0x21}))},
        {TOVRIN_REFUSED_ENDPOINTS_BUSY, [&] { fill_waiting_room(); }, send(good(0xf0))},
        {TOVRIN_REFUSED_MESSAGE_TOO_SHORT, {}, message({0x21, 0, 0})},
        {TOVRIN_REFUSED_MESSAGE_LENGTH_MISMATCH, {}, message(with_len(plain_payload(9, 101, pattern(86)), 100))},
        {TOVRIN_REFUSED_ENCRYPTED_MALFORMED, keyed, message(raw_enc)},
        {TOVRIN_REFUSED_BAD_DIGEST, keyed, message(enc)},
        {TOVRIN_REFUSED_PLAIN_TOO_SHORT, {}, message(with_len({0x21, 0, 0, 0, 0, 0, 0, 9}, 8))},
        {TOVRIN_REFUSED_UNKNOWN_DATA_TYPE, {}, message(typed)},
        {TOVRIN_REFUSED_CONTROL_NO_HEADER, {}, send(ctrl_packet(TOVRIN_CTRL_KEEPALIVE, 0, 3))},
        {TOVRIN_REFUSED_CONTROL_BAD_LENGTH, {}, send(ka_response(TOVRIN_KA_LEN + 1))},
        {TOVRIN_REFUSED_REGISTRATION_TOO_SHORT, {}, send(reg_response(TOVRIN_REG_LEN - 1))},
        {TOVRIN_REFUSED_KEEPALIVE_TOO_SHORT, {}, send(ka_response(TOVRIN_KA_LEN - 1))},
        {TOVRIN_REFUSED_DRAVIP_TOO_SHORT, {}, send(ctrl_packet(TOVRIN_CTRL_DRAVIP, 11, 11))},
        {TOVRIN_REFUSED_CONTROL_UNKNOWN_TYPE, {}, send(ctrl_packet(0x21, 8, 8))},
        {TOVRIN_REFUSED_REGISTRATION_WHILE_UP, {}, send(reg_response())},
        {TOVRIN_REFUSED_DRAVIP_IGNORED, {}, send(ctrl_packet(TOVRIN_CTRL_DRAVIP, 12, 12))},
        {TOVRIN_REFUSED_IPC_RECEIVE_ERROR,
         {},
         [&] {
             sim::ipc_inject_raw({1, 2, 3, 4, 5});
             sim::settle();
         }},
        {TOVRIN_REFUSED_IPC_SHORT_PAYLOAD,
         {},
         [&] {
             notify(TOVRIN_IPC_KARATE, {1, 0, 0, 0});
         }},
        {TOVRIN_REFUSED_IPC_UNKNOWN_NOTIFICATION, {}, [&] { notify(555, {}); }},
        {TOVRIN_REFUSED_IPC_UNKNOWN_REQUEST, {}, [&] { request(555, {}); }},
        {TOVRIN_REFUSED_IPC_SEND_AS_REQUEST, {}, [&] { request(TOVRIN_IPC_SEND_MSG, {}); }},
        {TOVRIN_REFUSED_IPC_BAD_KEY, {}, [&] { set_key(std::vector<uint8_t>(TOVRIN_KEY_MAX + 1, 1)); }},
        {TOVRIN_REFUSED_IPC_BAD_APP_ID, {}, [&] { karate(-1, 1000); }},
        {TOVRIN_REFUSED_IPC_BAD_RATE, {}, [&] { karate(5, TOVRIN_KA_RATE_MIN - 1); }},
        {TOVRIN_REFUSED_IPC_NO_RATE_SET, {}, [&] { karate(5, 0); }},
        {TOVRIN_REFUSED_APP_SHORTER_THAN_HEADER, {}, [&] { notify(TOVRIN_IPC_SEND_MSG, std::vector<uint8_t>(83)); }},
        {TOVRIN_REFUSED_APP_BAD_LENGTH,
         {},
         [&] {
             app_send_hdr(app_header(105, "tester", 1, 0, 102, 5), {1, 2, 3});
         }},
        {TOVRIN_REFUSED_APP_LINK_DOWN, [&] { set_controller(); }, [&] { app_send(105, 102, 0, {1}); }},
        {TOVRIN_REFUSED_APP_QUEUE_FULL,
         [&] {
             tovrin_send_queue_configure("1");
             app_send(105, 102, 0, {1});
         },
         [&] { app_send(105, 102, 0, {2}); }},
        {TOVRIN_REFUSED_APP_UNKNOWN_ENDPOINT, {}, send(good(0x16, 555))},
        {TOVRIN_REFUSED_APP_TOO_BIG_FOR_ENDPOINT, {}, send_all(big)},
        {TOVRIN_REFUSED_DELIVERY_FAILED, [&] { sim::ipc_set_missing("/vk/ipc/gelvar", true); }, send(good(0x17))},
        // No acknowledgement asked: not held back.
        {TOVRIN_REFUSED_DELIVERY_ROOM_FULL, [&] { fill_waiting_room(); }, send(good(0xf1, 101, 0x20))},
        {TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK,
         [&] {
             sim::ipc_set_full("/vk/ipc/gelvar", true);
             from_ctrl(good(0x18));
             run_answering(1900 * kMs);
         },
         [&] { run_answering(200 * kMs); }},
    };
    std::vector<bool> seen(TOVRIN_REFUSAL_COUNT);
    for (const Row &r : rows) {
        SCOPED_TRACE(tovrin_refusal_names[r.reason]);
        TearDown();  // a fresh daemon for every row
        SetUp();
        bring_up();
        if (r.before) r.before();
        const tovrin_counters_t was = tovrin_counters;
        r.act();
        const tovrin_counters_t now = tovrin_counters;
        for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
            EXPECT_EQ(now.refused[i] - was.refused[i], i == r.reason ? 1u : 0u) << tovrin_refusal_names[i];
        EXPECT_EQ(now.datagrams_refused - was.datagrams_refused, 1u);
        // Only what the waiting room gave up or had no room for counts against it.
        const bool room =
            r.reason == TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK || r.reason == TOVRIN_REFUSED_DELIVERY_ROOM_FULL;
        EXPECT_EQ(now.backlog_dropped - was.backlog_dropped, room ? 1u : 0u);
        seen[r.reason] = true;
    }
    // Allocation failure has its own binary (alloc_failure.cpp), where malloc can fail on demand.
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        if (i != TOVRIN_REFUSED_APP_NO_MEMORY) {
            EXPECT_TRUE(seen[i]) << "no row for " << tovrin_refusal_names[i];
        }
}

// Uplink and downlink traffic with a lost transmission, a lost fragment, a
// lost acknowledgement and a link loss: every message that did not get
// through at the first try shows in a counter.
TEST_F(Counters, ExplainEveryMessageNotDeliveredAtTheFirstTry) {
    bring_up();
    // Uplink: the first goes through; the second's first transmission is lost.
    app_send(105, 102, TOVRIN_MSG_F_ACK_REQ, {1});
    from_ctrl(ack_for(1));
    app_send(105, 102, TOVRIN_MSG_F_ACK_REQ, {2});
    run_answering(1100 * kMs);
    from_ctrl(ack_for(2));

    // Downlink: one clean; one whose middle fragment is lost and which is then
    // resent whole; one whose acknowledgement is lost, so it comes again.
    from_ctrl(good(0x20));
    const auto data = pattern(2488);
    const auto first = fragments(plain_payload(9, 101, data), 0x21);
    from_ctrl(first[0]);
    from_ctrl(first[2]);
    for (const auto &f : fragments(plain_payload(9, 101, data), 0x21, true)) from_ctrl(f);
    from_ctrl(good(0x22));
    from_ctrl(good(0x22, 101, 0x26));

    // The controller goes silent with a message queued: the link goes down,
    // the message fails, and the link comes back.
    app_send(105, 102, TOVRIN_MSG_F_ACK_REQ, {3});
    sim::run_for(20 * kSec);
    ASSERT_EQ(tovrin_gbl.status, 0);
    from_ctrl(reg_response());
    ASSERT_EQ(tovrin_gbl.status, 1);

    const std::size_t to_101 = app_msgs_to("/vk/ipc/gelvar").size();
    const tovrin_counters_t c = asked();
    EXPECT_EQ(c.version, TOVRIN_STATS_VERSION);
    EXPECT_EQ(c.size, sizeof c);
    EXPECT_EQ(c.refusal_count, TOVRIN_REFUSAL_COUNT);
    EXPECT_EQ(c.link_up, 1u);
    EXPECT_EQ(c.controller, kCtrl);
    EXPECT_EQ(c.link_ups, 2u);
    EXPECT_EQ(c.link_downs, 1u);
    EXPECT_EQ(c.seconds_in_state, 0u);

    // Uplink: three taken, two acknowledged, one failed with the link.
    EXPECT_EQ(c.up_messages_accepted, 3u);
    EXPECT_EQ(c.up_messages_acked, 2u);
    EXPECT_EQ(c.up_messages_failed, 1u);
    EXPECT_EQ(c.send_queue_depth, 0u);
    EXPECT_EQ(c.send_queue_high_water, 1u);
    std::size_t resent = 0;
    for (const auto &d : data_sent()) resent += (d.bytes[8] & TOVRIN_F_RETX) != 0;
    EXPECT_EQ(c.retransmissions, resent);
    EXPECT_GE(c.retransmissions, 1u + 1u) << "the lost one once, the failed one until the link went";

    // Downlink: three delivered; the lost fragment shows as fragments out of
    // order (the one after the gap, then the resent first), the lost
    // acknowledgement as a repeated message.
    EXPECT_EQ(c.down_messages_delivered, 3u);
    EXPECT_EQ(to_101, 3u + 3u) << "three status reports besides";
    EXPECT_EQ(c.down_messages_dropped, 0u);
    EXPECT_EQ(c.refused[TOVRIN_REFUSED_FRAGMENT_OUT_OF_ORDER], 2u);
    EXPECT_EQ(c.refused[TOVRIN_REFUSED_MESSAGE_REPEATED], 1u);
    EXPECT_EQ(c.datagrams_refused, 3u);

    // Control traffic, and every datagram out, as the controller saw them.
    EXPECT_EQ(c.registrations_sent, times_of(TOVRIN_CTRL_REGISTER).size());
    EXPECT_EQ(c.keepalives_sent, times_of(TOVRIN_CTRL_KEEPALIVE).size());
    EXPECT_GE(c.keepalives_sent, c.keepalives_answered + 3) << "three unanswered took the link down";
    EXPECT_GT(c.keepalives_answered, 0u);
    EXPECT_EQ(c.datagrams_out, sent().size());

    // Time in the state grows with the clock, from the last change.
    sim::run_for(2 * kSec);
    EXPECT_EQ(asked().seconds_in_state, 2u);
}

// SIGUSR1 writes the counters as one INFO line; SIGUSR2 and SIGPIPE change
// nothing. SIGHUP's reopening of a moved log is the end-to-end test's.
TEST_F(Counters, SignalsFromAnOperator) {
    ASSERT_EQ(tovrin_signals_init(), 0);
    set_level(3);
    bring_up();
    notify(555, {});
    sim::raise_signal(SIGUSR2);
    sim::raise_signal(SIGPIPE);
    sim::raise_signal(SIGUSR1);
    sim::settle();
    EXPECT_EQ(log_count("INFO: counters "), 1);
    // Every plain counter in the record's order, then the reasons that are not zero.
    EXPECT_TRUE(
        logged("INFO: counters link_up=1 seconds_in_state=0 link_ups=1 link_downs=0 registrations_sent=1 "
               "keepalives_sent=1 keepalives_answered=0 datagrams_in=1 datagrams_out=2 datagrams_refused=1 "
               "retransmissions=0 up_messages_accepted=0 up_messages_acked=0 up_messages_failed=0 "
               "down_messages_delivered=0 down_messages_dropped=0 send_queue_depth=0 send_queue_high_water=0 "
               "backlog_depth=0 backlog_dropped=0 ipc_unknown_notification=1\n"))
        << log_text();
    EXPECT_EQ(tovrin_gbl.status, 1);
}

}  // namespace
