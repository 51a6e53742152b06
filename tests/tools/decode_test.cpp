// Lines tovrinctl prints for what the daemon sends back.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/host_order.h"
#include "tools/tovrinctl/decode.h"
#include "tools/tovrinctl/encode.h"

namespace tovrinctl {
namespace {

using host_order::h32;

class TovrinctlDecode : public ::testing::Test {};

std::vector<uint8_t> hex(const std::string &h) { return parse_hex(h).value(); }

// An application message as the daemon sends it; the header layout itself is
// pinned byte for byte in encode_test.
std::vector<uint8_t> app(int32_t src, uint32_t id, uint32_t flags, int32_t dst, const std::vector<uint8_t> &data,
                         uint32_t claimed_len = UINT32_MAX) {
    std::vector<uint8_t> m = encode_app_msg({src, "", id, flags, dst}, data).value();
    if (claimed_len != UINT32_MAX)  // answers carry the original length, no data
        std::memcpy(m.data() + 80, &claimed_len, 4);
    return m;
}

TEST_F(TovrinctlDecode, StatusAnswerShowsAddressAndLinkState) {
    EXPECT_EQ(format_status(hex("c0a80101" + h32(1))), "controller 192.168.1.1 link UP");
    EXPECT_EQ(format_status(hex("00000000" + h32(0))), "controller 0.0.0.0 link DOWN");
    EXPECT_EQ(format_status(hex("0a000001" + h32(2))), "controller 10.0.0.1 link DOWN");
    EXPECT_EQ(format_status(hex("0a000001" + h32(1).substr(0, 6))), std::nullopt);
}

TEST_F(TovrinctlDecode, LogConfigurationShowsLevelEchoAndMaxSize) {
    auto w = decode_log_conf(hex(h32(1) + h32(0) + h32(4) + h32(1) + h32(0) + h32(1048576)));
    ASSERT_TRUE(w.has_value());
    EXPECT_EQ(format_log_conf(*w), "level 4 echo 1 max 1048576");
    auto neg = decode_log_conf(hex(h32(1) + h32(0) + "ffffffff" + h32(0) + h32(0) + "ffffffff"));
    ASSERT_TRUE(neg.has_value());
    EXPECT_EQ(format_log_conf(*neg), "level -1 echo 0 max 4294967295");
    const std::string full = h32(1) + h32(0) + h32(4) + h32(1) + h32(0) + h32(1048576);
    EXPECT_EQ(decode_log_conf(hex(full.substr(0, full.size() - 2))), std::nullopt);
}

TEST_F(TovrinctlDecode, RawResponseShowsEveryField) {
    EXPECT_EQ(format_response(28, 0x4, hex("0102ff")), "type=28 flags=0x00000004 len=3 payload=0102ff");
    EXPECT_EQ(format_response(68, 0x4, {}), "type=68 flags=0x00000004 len=0 payload=");
}

TEST_F(TovrinctlDecode, EndpointMessagesGetOneLineByKind) {
    const std::vector<uint8_t> hello = {'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd'};
    struct line_case {
        uint32_t type, env_flags;
        std::vector<uint8_t> payload;
        std::string line;
    };
    const std::vector<line_case> cases = {
        {123, 0x1, app(0, 42, 0x2000000, 0, hex("0a000001" + h32(1))), "STATUS UP controller 10.0.0.1 id 42"},
        {123, 0x1, app(0, 0, 0x2000000, 0, hex("c0a80009" + h32(0))), "STATUS DOWN controller 192.168.0.9 id 0"},
        {123, 0x1, app(7, 100000, 0x10000, 101, hello), "MSG id=100000 src=7 dst=101 len=11 data=hello world"},
        {123, 0x1, app(7, 100001, 0x10000, 102, {0x00, 0xff, 0x41}), "MSG id=100001 src=7 dst=102 len=3 data=00ff41"},
        {123, 0x1, app(7, 100002, 0x10000, 102, {}), "MSG id=100002 src=7 dst=102 len=0 data="},
        // A message cut short shows the bytes that came.
        {123, 0x1, app(7, 5, 0x10000, 102, {'a', 'b'}, 9), "MSG id=5 src=7 dst=102 len=9 data=ab"},
        {123, 0x1, app(101, 9, 0x100, 200, {}, 5), "ANSWER id=9 dst=200 len=5 flags=0x00000100 OK"},
        {123, 0x4, app(101, 9, 0x1000300, 200, {}, 5), "ANSWER id=9 dst=200 len=5 flags=0x01000300 FAILED"},
        {99, 0x1, hex("0102"), "RAW type=99 flags=0x00000001 len=2 payload=0102"},
        {123, 0x1, hex("00000000000000000000"), "RAW type=123 flags=0x00000001 len=10 payload=00000000000000000000"},
    };
    for (const line_case &c : cases) EXPECT_EQ(format_endpoint_msg(c.type, c.env_flags, c.payload), c.line);

    // A status report too short to hold address and state is shown raw.
    const auto short_status = app(0, 3, 0x2000000, 0, hex("0a000001"));
    EXPECT_TRUE(format_endpoint_msg(123, 0x1, short_status).starts_with("RAW type=123 "));
}

TEST_F(TovrinctlDecode, DataIsTextOnlyWhenEveryByteIsPrintable) {
    EXPECT_EQ(printable_or_hex(std::vector<uint8_t>{' ', '~', 'A'}), " ~A");
    EXPECT_EQ(printable_or_hex(std::vector<uint8_t>{'A', '\n'}), "410a");
    EXPECT_EQ(printable_or_hex(std::vector<uint8_t>{'A', 0x7f}), "417f");
    EXPECT_EQ(printable_or_hex(std::vector<uint8_t>{0x1f}), "1f");
}

}  // namespace
}  // namespace tovrinctl
