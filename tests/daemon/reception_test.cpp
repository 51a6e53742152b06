// Every datagram the link refuses, with the line that says why. Data messages are
// acknowledged, then counted as dropped; the rest leave the link record as it was.
#include "core/counters.h"
#include "world.h"

namespace {

const std::vector<uint8_t> kKey = unhex("000102030405060708090a0b0c0d0e0f");

std::vector<uint8_t> msg(const std::vector<uint8_t> &payload) {
    return frame(0x24, 0, 0x11, 0, payload);
}
std::vector<uint8_t> edit(std::vector<uint8_t> d, std::initializer_list<std::pair<std::size_t, uint8_t>> at) {
    for (auto [i, v] : at) d[i] = v;
    return d;
}
std::vector<uint8_t> ctrl(uint8_t type, uint16_t len_field, std::size_t size) {
    return ctrl_packet(type, len_field, size, 0xa0);
}

using Dropped = World;

TEST_F(Dropped, EachRefusalLogsItsLineAndChangesNothingElse) {
    bring_up();
    set_key(kKey);
    const int fd = tovrin_gbl.sock;
    const auto good = msg(plain_payload(7, 101, {0xa1, 0xa2, 0xa3}));  // 27 bytes, accepted as it stands
    const auto enc = enc_payload(9, 101, {1, 2, 3, 4, 5}, kKey, kKey);
    struct Row {
        std::vector<uint8_t> dgram;
        std::string line;
        bool acked = false;
        uint32_t src = kCtrl;
    };
    const Row rows[] = {
        {std::vector<uint8_t>(good.begin(), good.begin() + 11), strf("Not able to read %d even the hdr 12, recv 11.", fd)},
        {edit(good, {{1, 11}}), strf("Dropping data on %d with hdr_len 11.", fd)},
        {edit(good, {{3, 16}}), strf("Not able to recv on %d complete data length 16, 15.", fd)},
        {edit(good, {{3, 14}}), strf("fd %d Probably trailing bits at the end 1.", fd)},
        {msg(std::vector<uint8_t>(1088, 0x21)), strf("complete data length 1088, 1024.")},
        {edit(good, {{0, 2}}), strf("fd %d Improper hdr version 2.", fd)},
        {edit(good, {{6, 0xbe}, {7, 0xef}}), strf("fd %d Invalid magic number hdr version 0xdeadbeef.", fd)},
        {good, strf("Read on %d from wrong DRAV 198.18.0.9 Real DRAV 198.18.0.1\n", fd), false, kOther},
        {reg_response(), strf("from wrong DRAV/Mobility Ctrl 198.18.0.9 Real DRAV 198.18.0.1"), false, kOther},
        {ctrl(0x1f, 103, 103), "incorrect registration resp len 103\n"},
        {ctrl(0x20, 35, 35), "incorrect keepalive len 35\n"},
        {ctrl(0x22, 11, 11), "incorrect dravip msg len 11\n"},
        {ctrl(0x21, 104, 104), "Unsupported ctrl pkt 33\n"},
        {ctrl(0x1f, 104, 60), "Ctrl pkt 31 claims len 104, received 60\n"},
        {msg({'!', 0, 0}), "too short 3\n", true},
        {msg({'!', 0, 0, 4}), "Malformed plain msg 17 (shorter than its header)", true},
        {msg({'!', 0, 0, 6, 1}), "but len do not match 5-6\n", true},
        {edit(good, {{12, 'x'}}), "Unsupported datatype 120 Drop msg 17", true},
        {msg(edit(enc, {{40, enc[40] ^ 1}})), "Invalid checksum! Drop msg 17", true},
        {msg(edit({enc.begin(), enc.end() - 1}, {{3, 63}})), "not a whole number of blocks", true},
        {msg(edit(enc, {{15, 17}})), "pad count beyond the payload", true},
        {frame(0x24, 1, 0x12, 0, good), "Recv frag 1 expecting 1st frag"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.line);
        clear_captures();
        const auto before = link_bytes();
        const uint64_t dropped = tovrin_counters.down_messages_dropped;
        const std::size_t mark = log_mark();
        from_ctrl(r.dgram, r.src);
        EXPECT_NE(log_since(mark).find(r.line), std::string::npos) << log_since(mark);
        EXPECT_TRUE(app_msgs().empty());
        EXPECT_EQ(sent().size(), r.acked ? 1u : 0u);
        EXPECT_EQ(tovrin_counters.down_messages_dropped - dropped, r.acked ? 1u : 0u);
        EXPECT_TRUE(r.acked || link_bytes() == before);
    }
    // Without its defect the message is acknowledged and delivered.
    clear_captures();
    from_ctrl(good);
    EXPECT_EQ(hex(sent().at(0).bytes), "010c0000deadfeed08001100");
    EXPECT_EQ(hex(app_msgs_to("/vk/ipc/gelvar").at(0).data), "a1a2a3");
}

}  // namespace
