// Reassembly of controller messages: fragment order, resent messages, the one
// acknowledgement per message, and the buffer's bound.
#include "world.h"

namespace {

using Reassembly = World;

TEST_F(Reassembly, FragmentsJoinInOrderAndAreAcknowledgedOnce) {
    bring_up();
    clear_captures();
    auto ack = [](uint8_t flags, uint8_t frag, uint8_t trans) {
        return strf("010c0000deadfeed%02x%02x%02x00", flags, frag, trans);
    };
    auto acks = [&] {
        std::string s;
        for (const auto &d : sent()) s += hex(d.bytes) + " ";
        return s;
    };
    const auto data = pattern(2488);
    const auto frags = fragments(plain_payload(9, 101, data), 0x13);
    ASSERT_EQ(frags.size(), 3u);
    from_ctrl(frags[0]);
    const std::size_t mark = log_mark();
    from_ctrl(frags[2]);  // out of order: refused, to be resent
    EXPECT_NE(log_since(mark).find("seq 19 expected frag 1 received 2 from Ctlr"), std::string::npos);
    from_ctrl(frags[1]);
    EXPECT_EQ(acks(), "");
    from_ctrl(frags[2]);
    EXPECT_EQ(acks(), ack(0x08, 2, 0x13) + " ");
    ASSERT_EQ(app_msgs().size(), 1u);
    EXPECT_TRUE(app_msgs()[0].data == data);

    // Resent whole after its ack was lost: acknowledged again, not delivered again.
    clear_captures();
    for (const auto &f : fragments(plain_payload(9, 101, data), 0x13, true)) from_ctrl(f);
    EXPECT_EQ(acks(), ack(0x0a, 2, 0x13) + " ");
    EXPECT_TRUE(app_msgs().empty());

    // Sixteen full fragments that announce more fill the buffer: a seventeenth is too big.
    auto more = fragments(std::vector<uint8_t>(16385, 0x21), 0x29);
    ASSERT_EQ(more.size(), 17u);
    for (const auto &f : more) from_ctrl(f);
    EXPECT_EQ(log_count("Packet too big Recv len 16384 data_len 1"), 1);
    EXPECT_TRUE(app_msgs().empty());
}

}  // namespace
