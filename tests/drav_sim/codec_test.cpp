// Frame checks and the control packets drav-sim answers with, byte for byte.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "helpers.h"
#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/format.h"

namespace {

std::span<const uint8_t> payload_of(const std::vector<uint8_t> &d) {
    return std::span<const uint8_t>(d).subspan(TOVRIN_HDR_LEN);
}

}  // namespace

TEST(DravSimCodec, FrameChecksRefuseEachMalformation) {
    struct row {
        const char *hex;
        const char *reason;  // "" when accepted
    } rows[] = {
        {"010c0000deadfeed080000", "short datagram 11 bytes"},
        {"010b0000deadfeed08000000", "hdr_len 11 not 12"},
        {"010d0000deadfeed08000000", "hdr_len 13 not 12"},
        {"010c0004deadfeed08000000", "data_len 4 but 0 payload bytes"},
        {"010c0000deadfeed0800000000", "data_len 0 but 1 payload bytes"},
        {"020c0000deadfeed08000000", "version 2"},
        {"010c0000deadfeee08000000", "magic 0xdeadfeee"},
        {"010c0000deadfeed08000000", ""},
        {"010c0002deadfeed240000011122", ""},
    };
    for (const row &r : rows) {
        std::vector<uint8_t> d = bytes_of_hex(r.hex);
        dsim_frame f;
        EXPECT_EQ(dsim_frame_check(d, f), r.reason) << r.hex;
        if (*r.reason == '\0') {
            EXPECT_EQ(f.payload.size(), f.hdr.data_len) << r.hex;
        }
    }
    // A datagram longer than one fragment is refused even when it is consistent.
    std::vector<uint8_t> big(TOVRIN_HDR_LEN + 1025, 0);
    for (auto [i, v] : {std::pair{0, 1}, {1, 12}, {2, 0x04}, {3, 0x01}, {4, 0xde}, {5, 0xad}, {6, 0xfe}, {7, 0xed}})
        big[i] = static_cast<uint8_t>(v);
    dsim_frame f;
    EXPECT_EQ(dsim_frame_check(big, f), "data_len 1025 above 1024");
}

TEST(DravSimCodec, RequestsDecodeAndShortOnesAreRefused) {
    std::vector<uint8_t> reg = bytes_of_hex(dsim_reg_req_hex);
    dsim_ap_req r;
    ASSERT_EQ(dsim_req_decode(payload_of(reg), r), "");
    EXPECT_EQ(dsim_fmt_req(r), "REG-REQ serial=SER123 mac=00:11:aa:bb:cc:dd uptime=77 name=Testserver ka_rate=5000");
    std::vector<uint8_t> ka = bytes_of_hex(dsim_ka_req_hex);
    ASSERT_EQ(dsim_req_decode(payload_of(ka), r), "");
    EXPECT_EQ(dsim_fmt_req(r), "KA-REQ serial=SER123 mac=00:11:aa:bb:cc:dd uptime=78 ka_rate=5000");

    struct row {
        std::vector<uint8_t> payload;
        const char *reason;
    } rows[] = {
        {bytes_of_hex("1f000067"), "length field 103 below 104"},
        {bytes_of_hex("20000023"), "length field 35 below 36"},
        {bytes_of_hex("1f000068"), "length field 104 beyond 4 bytes received"},
        {bytes_of_hex("200000240000"), "length field 36 beyond 6 bytes received"},
        {bytes_of_hex("1f00"), "control payload of 2 bytes"},
        {bytes_of_hex("22000024"), "not a request"},
    };
    for (const row &x : rows) EXPECT_EQ(dsim_req_decode(x.payload, r), x.reason);
}

TEST(DravSimCodec, AnswersAreByteExact) {
    std::vector<uint8_t> reg = bytes_of_hex(dsim_reg_req_hex);
    EXPECT_EQ(hex_of(dsim_build_reg_resp(payload_of(reg))), answer_hex_of(dsim_reg_req_hex));
    std::vector<uint8_t> ka = bytes_of_hex(dsim_ka_req_hex);
    EXPECT_EQ(hex_of(dsim_build_ka_resp(payload_of(ka))), answer_hex_of(dsim_ka_req_hex));
    in_addr a{};
    inet_pton(AF_INET, "10.1.2.254", &a);
    EXPECT_EQ(hex_of(dsim_build_dravip(a.s_addr)),
              "010c000cdeadfeed80000000"
              "2200000c"
              "00000000"
              "0a0102fe");
    EXPECT_EQ(hex_of(dsim_build_ack(TOVRIN_F_ACK, 2, 9)), "010c0000deadfeed08020009");
    EXPECT_EQ(hex_of(dsim_build_ack(TOVRIN_F_ACK | TOVRIN_F_RETX, 0, 255)), "010c0000deadfeed0a0000ff");
}

TEST(DravSimCodec, TextFormsKeepOneTokenPerValue) {
    struct row {
        std::vector<uint8_t> in;
        const char *cstr;
        const char *data;
    } rows[] = {
        {{'a', 'b', 0, 'c'}, "ab", "hex:61620063"},
        {{'a', ' ', '"', '\\'}, "a\\x20\\x22\\x5c", "\"a \\\"\\\\\""},
        {{'x', '\n', '\t'}, "x\\x0a\\x09", "\"x\\n\\t\""},
        {{0xff, 'A'}, "\\xffA", "hex:ff41"},
        {{}, "", "\"\""},
    };
    for (const row &r : rows) {
        EXPECT_EQ(dsim_fmt_cstr(r.in), r.cstr);
        EXPECT_EQ(dsim_fmt_data(r.in), r.data);
    }
    std::vector<uint8_t> long_text(65, 'z');
    EXPECT_EQ(dsim_fmt_data(long_text), "\"" + std::string(64, 'z') + "\"...");
    std::vector<uint8_t> exactly(64, 'z');
    EXPECT_EQ(dsim_fmt_data(exactly), "\"" + std::string(64, 'z') + "\"");

    dsim_bytes k;
    EXPECT_TRUE(dsim_parse_hex("00aAfF", k));
    EXPECT_EQ(hex_of(k), "00aaff");
    EXPECT_FALSE(dsim_parse_hex("abc", k));
    EXPECT_FALSE(dsim_parse_hex("zz", k));
}
