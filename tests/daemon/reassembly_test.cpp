// Reassembly of controller messages: fragment order, retransmitted messages,
// the one acknowledgement per message, length and form checks, delivery.
#include <cstring>

#include "world.h"

namespace {

class Reassembly : public World {
protected:
    void SetUp() override {
        World::SetUp();
        bring_up();
        clear_captures();
    }
    static std::string ack_hex(uint8_t flags, uint8_t frag, uint8_t trans) {
        return strf("010c0000deadfeed%02x%02x%02x00", flags, frag, trans);
    }
    // Hex of every datagram the AP sent since the last clear.
    std::vector<std::string> sent_hex() const {
        std::vector<std::string> out;
        for (const auto &d : sent()) out.push_back(hex(d.bytes));
        return out;
    }
    std::vector<AppSeen> delivered() const { return app_msgs_to("/vk/ipc/gelvar"); }
    static std::vector<uint8_t> pattern(std::size_t n, uint8_t seed = 1) {
        std::vector<uint8_t> v(n);
        for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 13 + seed);
        return v;
    }
    static std::string ap() { return strf("%p", static_cast<void *>(&tovrin_gbl)); }
    std::string bad_frag() const {
        return strf("NOTE: <<tovrin_recv_handler Bad frag received from AP(%s) 198.18.0.1\n", ap().c_str());
    }
};

TEST_F(Reassembly, SingleFragmentIsAcknowledgedWithFragmentZeroAndDelivered) {
    from_ctrl(frame(0x24, 0, 0x11, 0, plain_payload(9, 101, {0xc0, 0xc1})));
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 0, 0x11)});
    ASSERT_EQ(delivered().size(), 1u);
    EXPECT_EQ(hex(delivered()[0].data), "c0c1");
}

TEST_F(Reassembly, ThreeFragmentsAreAcknowledgedOnceWithTheLastNumber) {
    const auto data = pattern(2488);
    const auto frags = fragments(plain_payload(9, 101, data), 0x12);
    ASSERT_EQ(frags.size(), 3u);
    for (int i = 0; i < 2; ++i) {
        from_ctrl(frags[i]);
        EXPECT_TRUE(sent().empty()) << i;
        EXPECT_TRUE(app_msgs().empty()) << i;
    }
    from_ctrl(frags[2]);
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 2, 0x12)});
    ASSERT_EQ(delivered().size(), 1u);
    EXPECT_TRUE(delivered()[0].data == data);
}

TEST_F(Reassembly, FragmentOutOfOrderIsRefusedAndMustBeResent) {
    const auto data = pattern(2488);
    const auto frags = fragments(plain_payload(9, 101, data), 0x13);
    from_ctrl(frags[0]);
    const auto before = link_bytes();
    const std::size_t mark = log_mark();
    from_ctrl(frags[2]);
    const std::string log = log_since(mark);
    EXPECT_NE(log.find("NOTE: <<tovrin_recv_frag: seq 19 expected frag 1 received 2 from Ctlr 198.18.0.1\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(bad_frag()), std::string::npos);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_TRUE(sent().empty());

    from_ctrl(frags[1]);
    EXPECT_TRUE(app_msgs().empty());
    from_ctrl(frags[2]);
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 2, 0x13)});
    ASSERT_EQ(delivered().size(), 1u);
    EXPECT_TRUE(delivered()[0].data == data);
}

TEST_F(Reassembly, WholeMessageResentAfterAPartialOneCompletesFromWhereItStopped) {
    const auto data = pattern(3488);
    const auto first = fragments(plain_payload(9, 101, data), 0x20);
    const auto again = fragments(plain_payload(9, 101, data), 0x20, true);
    ASSERT_EQ(first.size(), 4u);
    from_ctrl(first[0]);
    from_ctrl(first[1]);

    const std::size_t mark = log_mark();
    const auto before = link_bytes();
    from_ctrl(again[0]);
    from_ctrl(again[1]);
    const std::string log = log_since(mark);
    EXPECT_NE(log.find("NOTE: <<tovrin_recv_frag: seq 32 expected frag 2 received 0 from Ctlr 198.18.0.1\n"),
              std::string::npos);
    EXPECT_NE(log.find("NOTE: <<tovrin_recv_frag: seq 32 expected frag 2 received 1 from Ctlr 198.18.0.1\n"),
              std::string::npos);
    EXPECT_TRUE(link_bytes() == before);

    from_ctrl(again[2]);
    EXPECT_TRUE(sent().empty());
    from_ctrl(again[3]);
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 3, 0x20)});
    ASSERT_EQ(delivered().size(), 1u);
    EXPECT_TRUE(delivered()[0].data == data);
}

TEST_F(Reassembly, ResentCompletedMessageIsAcknowledgedAgainAndNotDelivered) {
    // One fragment: the resent first fragment (0x26) draws 0x0A with the same numbers.
    from_ctrl(frame(0x24, 0, 0x21, 0, plain_payload(9, 101, {1})));
    ASSERT_EQ(delivered().size(), 1u);
    clear_captures();
    std::size_t mark = log_mark();
    from_ctrl(frame(0x26, 0, 0x21, 0, plain_payload(9, 101, {1})));
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x0a, 0, 0x21)});
    EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_recv_frag: Rtransmint ACK 33 flags 0x26 to 198.18.0.1\n"),
              std::string::npos);
    EXPECT_NE(log_since(mark).find(bad_frag()), std::string::npos);
    EXPECT_TRUE(app_msgs().empty());

    // Three fragments: the repeated ack names fragment 2; the other fragments are unexpected.
    const auto data = pattern(2100);
    clear_captures();
    for (const auto &f : fragments(plain_payload(9, 101, data), 0x22)) from_ctrl(f);
    ASSERT_EQ(delivered().size(), 1u);
    ASSERT_EQ(sent().size(), 1u);
    const std::string first_ack = hex(sent()[0].bytes);
    EXPECT_EQ(first_ack, ack_hex(0x08, 2, 0x22));
    clear_captures();
    mark = log_mark();
    for (const auto &f : fragments(plain_payload(9, 101, data), 0x22, true)) from_ctrl(f);
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x0a, 2, 0x22)});
    const std::string log = log_since(mark);
    EXPECT_NE(log.find("NOTE: <<tovrin_recv_frag: unexpected seq 34 frag 1 flags 0x27 expected seq "),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("NOTE: <<tovrin_recv_frag: unexpected seq 34 frag 2 flags 0x26 expected seq "),
              std::string::npos);
    int bad = 0;
    for (std::size_t p = log.find(bad_frag()); p != std::string::npos; p = log.find(bad_frag(), p + 1)) ++bad;
    EXPECT_EQ(bad, 3);
    EXPECT_TRUE(app_msgs().empty());

    // A message that was never acknowledged (no 0x04) is not acknowledged on its resend.
    from_ctrl(frame(0x20, 0, 0x23, 0, plain_payload(9, 101, {2})));
    ASSERT_EQ(delivered().size(), 1u);
    clear_captures();
    mark = log_mark();
    from_ctrl(frame(0x26, 0, 0x23, 0, plain_payload(9, 101, {2})));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());
    EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_recv_frag: unexpected seq 35 frag 0 flags 0x26 expected seq "),
              std::string::npos);
}

TEST_F(Reassembly, FirstFragmentWithoutRetransmissionStartsAMessageEvenUnderTheSameNumber) {
    for (int i = 0; i < 2; ++i) from_ctrl(frame(0x24, 0, 0x24, 0, plain_payload(9, 101, {0x5e})));
    EXPECT_EQ(sent_hex(), (std::vector<std::string>{ack_hex(0x08, 0, 0x24), ack_hex(0x08, 0, 0x24)}));
    ASSERT_EQ(delivered().size(), 2u);
    EXPECT_EQ(delivered()[0].hdr.id + 1, delivered()[1].hdr.id);

    // It also abandons a message still being assembled, without a word.
    clear_captures();
    const auto big = fragments(plain_payload(9, 101, pattern(1500)), 0x25);
    from_ctrl(big[0]);
    const std::size_t mark = log_mark();
    from_ctrl(frame(0x24, 0, 0x26, 0, plain_payload(9, 101, {0x6f})));
    EXPECT_EQ(log_since(mark).find("NOTE:"), std::string::npos);
    ASSERT_EQ(delivered().size(), 1u);
    EXPECT_EQ(hex(delivered()[0].data), "6f");
    from_ctrl(big[1]);  // the rest of the abandoned message is refused
    EXPECT_EQ(delivered().size(), 1u);
}

TEST_F(Reassembly, OnlyAFirstFragmentStartsAMessage) {
    const auto before = link_bytes();
    const std::size_t mark = log_mark();
    from_ctrl(frame(0x24, 3, 77, 0, plain_payload(9, 101, {1})));
    EXPECT_NE(log_since(mark).find("NOTE: <<<tovrin_recv_frag: Recv frag 3 expecting 1st frag from Ctlr 198.18.0.1 "
                                   "Ctlr Trans 77\n"),
              std::string::npos);
    EXPECT_NE(log_since(mark).find(bad_frag()), std::string::npos);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());

    // A retransmitted first fragment of a number not seen before does start one.
    from_ctrl(frame(0x26, 0, 78, 0, plain_payload(9, 101, {2})));
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 0, 78)});
    EXPECT_EQ(delivered().size(), 1u);
}

TEST_F(Reassembly, SixteenFullFragmentsFillTheBufferAndASeventeenthIsTooBig) {
    // 16384 bytes: accepted whole; its 16372 data bytes are the relay's concern.
    const auto full = fragments(plain_payload(9, 101, pattern(16372)), 0x28);
    ASSERT_EQ(full.size(), 16u);
    std::size_t mark = log_mark();
    for (const auto &f : full) from_ctrl(f);
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 15, 0x28)});
    EXPECT_NE(log_since(mark).find("DBG: >>tovrin_handle_msg: Sending id 100000 to ep 101 from 9 len 16372\n"),
              std::string::npos);
    EXPECT_EQ(log_since(mark).find("NOTE: <<tovrin_recv_frag"), std::string::npos);

    // Sixteen full fragments that announce more, then a seventeenth of one byte.
    clear_captures();
    auto more = fragments(std::vector<uint8_t>(16385, 0x21), 0x29);
    ASSERT_EQ(more.size(), 17u);
    for (int i = 0; i < 16; ++i) from_ctrl(more[i]);
    const auto before = link_bytes();
    mark = log_mark();
    from_ctrl(more[16]);
    std::string log = log_since(mark);
    EXPECT_NE(
        log.find("NOTE: <<tovrin_recv_frag: Packet too big Recv len 16384 data_len 1 from  ctlr 198.18.0.1 AP Trans "),
        std::string::npos)
        << log;
    EXPECT_NE(log.find(bad_frag()), std::string::npos);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());

    // Until a new message starts, later fragments are refused as out of order.
    mark = log_mark();
    from_ctrl(frame(0x24, 17, 0x29, 0, {1}));
    EXPECT_NE(
        log_since(mark).find("NOTE: <<tovrin_recv_frag: seq 41 expected frag 16 received 17 from Ctlr 198.18.0.1\n"),
        std::string::npos);
    from_ctrl(frame(0x24, 0, 0x2a, 0, plain_payload(9, 101, {3})));
    EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 0, 0x2a)});
    EXPECT_EQ(delivered().size(), 1u);
}

TEST_F(Reassembly, CompletedMessagesAreAcknowledgedThenCheckedAndDroppedWhenBad) {
    set_key(unhex("000102030405060708090a0b0c0d0e0f"));
    auto with_len = [](std::vector<uint8_t> p, uint16_t len) {
        tovrin_store16(&p[2], len);
        return p;
    };
    auto raw_enc = [](std::size_t size, uint32_t pad) {
        std::vector<uint8_t> p(size, 0x44);
        p[0] = '&';
        p[1] = 0;
        tovrin_store16(&p[2], static_cast<uint16_t>(size));
        tovrin_store32(&p[4], 9);
        tovrin_store32(&p[8], 101);
        if (size >= 16) tovrin_store32(&p[12], pad);
        return p;
    };
    std::vector<uint8_t> typed = plain_payload(9, 101, {1, 2, 3});
    typed[0] = 0x22;
    // A message of 259 bytes first leaves 0x03 in byte 3 of the buffer, where the
    // length field of a 3-byte message would be read from.
    const std::vector<uint8_t> stale = plain_payload(9, 101, pattern(247));
    ASSERT_EQ(stale.size(), 259u);

    struct Row {
        const char *what;
        std::vector<uint8_t> before;  // a message delivered first, if any
        std::vector<uint8_t> payload;
        std::string line;
    };
    const std::string ap_s = ap();
    const Row rows[] = {
        {"98 bytes, header says 100",
         {},
         with_len(plain_payload(9, 101, pattern(86)), 100),
         strf("NOTE: <<tovrin_recv_data: Recvd frag 0 from AP(%s) 198.18.0.1 but len do not match 98-100\n",
              ap_s.c_str())},
        {"type 0x22", {}, typed, "DBG: <<tovrin_recv_data: Unsupported datatype 34 Drop msg %d from 198.18.0.1\n"},
        {"3 bytes", stale, {0x21, 0x00, 0x00}, "too short 3"},
        {"plain shorter than its header",
         {},
         with_len(std::vector<uint8_t>{0x21, 0, 0, 0, 0, 0, 0, 9}, 8),
         "NOTE: <<tovrin_recv_data: Malformed plain msg %d"},
        {"encrypted, 32 bytes", {}, raw_enc(32, 0), "NOTE: <<tovrin_recv_data: Malformed encrypted msg %d ("},
        {"encrypted, 56 bytes", {}, raw_enc(56, 0), "NOTE: <<tovrin_recv_data: Malformed encrypted msg %d ("},
        {"encrypted, pad 17 of 16", {}, raw_enc(64, 17), "NOTE: <<tovrin_recv_data: Malformed encrypted msg %d ("},
    };
    uint8_t trans = 0x40;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        if (!r.before.empty()) {
            from_ctrl(frame(0x24, 0, trans++, 0, r.before));
            ASSERT_EQ(delivered().size(), 1u);
        }
        clear_captures();
        const std::size_t mark = log_mark();
        from_ctrl(frame(0x24, 0, trans, 0, r.payload));
        const std::string log = log_since(mark);
        EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x08, 0, trans)});
        const std::string line = r.line.find("%d") != std::string::npos ? strf(r.line.c_str(), trans) : r.line;
        EXPECT_NE(log.find(line), std::string::npos) << log;
        EXPECT_EQ(log.find(">>tovrin_handle_msg"), std::string::npos);
        EXPECT_TRUE(app_msgs().empty());

        // Still the completed message: its resend is acknowledged again, not delivered.
        clear_captures();
        from_ctrl(frame(0x26, 0, trans, 0, r.payload));
        EXPECT_EQ(sent_hex(), std::vector<std::string>{ack_hex(0x0a, 0, trans)});
        EXPECT_TRUE(app_msgs().empty());
        ++trans;
    }
}

TEST_F(Reassembly, DeliveredDataLeavesTheInnerHeaderAndPadBehind) {
    const std::vector<uint8_t> key = unhex("00112233445566778899aabbccddeeff");
    set_key(key);
    const auto plain = plain_payload(9, 101, pattern(28));
    ASSERT_EQ(plain.size(), 40u);
    const auto enc = enc_payload(9, 101, pattern(59), key, unhex("11111111222222223333333344444444"));
    ASSERT_EQ(enc.size(), 112u);
    ASSERT_EQ(tovrin_load32(&enc[12]), 5u);
    struct Row {
        const char *what;
        std::vector<uint8_t> payload;
        std::size_t n;
    };
    const Row rows[] = {{"plain 40", plain, 28}, {"encrypted 112, pad 5", enc, 59}};
    uint8_t trans = 0x50;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        clear_captures();
        const std::size_t mark = log_mark();
        from_ctrl(frame(0x24, 0, trans++, 0, r.payload));
        EXPECT_NE(log_since(mark).find(strf("from 9 len %zu\n", r.n)), std::string::npos);
        ASSERT_EQ(delivered().size(), 1u);
        EXPECT_EQ(delivered()[0].hdr.len, r.n);
        EXPECT_TRUE(delivered()[0].data == pattern(r.n));
        EXPECT_EQ(sim::ipc_sent().back().len, 84 + r.n);
    }
}

TEST_F(Reassembly, OnlyTheLastFragmentDecidesWhetherTheMessageIsAcknowledged) {
    auto send = [&](uint8_t trans, const std::vector<uint8_t> &flags) {
        auto frags = fragments(plain_payload(9, 101, pattern(2100)), trans);
        std::size_t i = 0;
        for (uint8_t f : flags) {
            frags[i][8] = f;
            from_ctrl(frags[i++]);
        }
    };
    struct Row {
        const char *what;
        uint8_t trans;
        std::vector<uint8_t> flags;  // per fragment; empty: one fragment with 0x20
        std::vector<std::string> acks;
    };
    const Row rows[] = {
        {"single without 0x04", 0x60, {}, {}},
        {"last lacks 0x04", 0x61, {0x25, 0x25, 0x20}, {}},
        {"only the last has 0x04", 0x62, {0x21, 0x21, 0x24}, {ack_hex(0x08, 2, 0x62)}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        clear_captures();
        if (r.flags.empty())
            from_ctrl(frame(0x20, 0, r.trans, 0, plain_payload(9, 101, {7})));
        else
            send(r.trans, r.flags);
        EXPECT_EQ(sent_hex(), r.acks);
        EXPECT_EQ(delivered().size(), 1u);
    }
}

TEST_F(Reassembly, NoFragmentNumberFollowsTwoHundredFiftyFive) {
    // 256 one-byte fragments would make fragment 255 carry MORE_FRAGS; the
    // next one, numbered 0 after a wrap, must not continue the message.
    const uint8_t trans = 0x30;
    for (int f = 0; f <= 255; ++f) from_ctrl(frame(0x25, static_cast<uint8_t>(f), trans, 0, {static_cast<uint8_t>(f)}));
    ASSERT_EQ(tovrin_gbl.comm.rx_hdr.frag, 255);
    const auto before = link_bytes();
    const std::size_t mark = log_mark();
    from_ctrl(frame(0x24 | 0x02, 0, trans, 0, {0}));
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_recv_frag: seq 48 expected frag 256 received 0"), std::string::npos)
        << log_since(mark);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());
}

}  // namespace
