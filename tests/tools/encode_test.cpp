// Payload bytes tovrinctl puts on the wire, written out in full. The daemon
// reads them in host order, so the expected bytes are those of this host.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/host_order.h"
#include "tools/tovrinctl/encode.h"

namespace tovrinctl {
namespace {

using host_order::h32;

class TovrinctlEncode : public ::testing::Test {};

std::vector<uint8_t> bytes_of(const std::string &hex) {
    auto b = parse_hex(hex);
    EXPECT_TRUE(b.has_value()) << hex;
    return b.value_or(std::vector<uint8_t>{});
}

TEST_F(TovrinctlEncode, HexTextRoundTripsAndRefusesWhatIsNotHex) {
    EXPECT_EQ(parse_hex("0x0A0b"), (std::vector<uint8_t>{0x0a, 0x0b}));
    EXPECT_EQ(parse_hex("ff00"), (std::vector<uint8_t>{0xff, 0x00}));
    EXPECT_EQ(parse_hex(""), std::vector<uint8_t>{});
    for (const char *bad : {"abc", "0g", "0x0", "12 34", "1-"}) EXPECT_FALSE(parse_hex(bad).has_value()) << bad;
    const std::vector<uint8_t> all = {0x00, 0x01, 0x7f, 0x80, 0xab, 0xff};
    EXPECT_EQ(to_hex(all), "00017f80abff");
}

TEST_F(TovrinctlEncode, KeyIsLengthWordThenTheKeyBytes) {
    EXPECT_EQ(to_hex(encode_key(bytes_of("00112233445566778899aabbccddeeff"))),
              h32(16) + "00112233445566778899aabbccddeeff");
    EXPECT_EQ(to_hex(encode_key(bytes_of("aabbcc"))), h32(3) + "aabbcc");
}

TEST_F(TovrinctlEncode, EncryptStateIsOneSignedWord) {
    EXPECT_EQ(to_hex(encode_encrypt(1)), h32(1));
    EXPECT_EQ(to_hex(encode_encrypt(-1)), "ffffffff");
    EXPECT_EQ(to_hex(encode_encrypt(0x01020304)), h32(0x01020304));
}

TEST_F(TovrinctlEncode, ControllerAddressIsNetworkOrderFirstOctetFirst) {
    auto a = encode_controller("192.168.1.20");
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(to_hex(*a), "c0a80114");
    auto z = encode_controller("0.0.0.0");
    ASSERT_TRUE(z.has_value());
    EXPECT_EQ(to_hex(*z), "00000000");
    for (const char *bad : {"", "1.2.3", "1.2.3.4.5", "a.b.c.d", " 1.2.3.4", "1.2.3.256", "0x1.2.3.4"})
        EXPECT_FALSE(encode_controller(bad).has_value()) << bad;
}

TEST_F(TovrinctlEncode, RateRequestIsAppIdThenRate) {
    EXPECT_EQ(to_hex(encode_karate(7, 3000)), h32(7) + h32(3000));
    EXPECT_EQ(to_hex(encode_karate(-1, 0)), "ffffffff" + h32(0));
    EXPECT_EQ(to_hex(encode_karate(0, 4294967295u)), h32(0) + "ffffffff");
}

TEST_F(TovrinctlEncode, LogConfigurationIsSixWords) {
    EXPECT_EQ(to_hex(encode_log_conf({1, 0, 4, 1, 0, 2048})), h32(1) + h32(0) + h32(4) + h32(1) + h32(0) + h32(2048));
}

TEST_F(TovrinctlEncode, ApplicationMessageIsTheHeaderThenTheData) {
    const std::string data = "hi";
    auto m = encode_app_msg({101, "tovrinctl", 9, 0x300, 200},
                            {reinterpret_cast<const uint8_t *>(data.data()), data.size()});
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(to_hex(*m),
              h32(101) +                                          // src_ep
                  "746f7672696e63746c" + std::string(110, '0') +  // "tovrinctl", zero to 64 bytes
                  h32(9) +                                        // id
                  h32(0x300) +                                    // flags
                  h32(200) +                                      // dst_ep
                  h32(2) +                                        // len
                  "6869");
    auto empty = encode_app_msg({-1, "", 0xffffffff, 0, -2}, {});
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(to_hex(*empty), "ffffffff" + std::string(128, '0') + "ffffffff" + h32(0) + h32(0xfffffffe) + h32(0));
}

TEST_F(TovrinctlEncode, ApplicationMessageRefusesWhatCannotFitOneIpcMessage) {
    const std::vector<uint8_t> most(16304, 0x5a), over(16305, 0x5a);
    auto fits = encode_app_msg({101, "x", 0, 0, 1}, most);
    ASSERT_TRUE(fits.has_value());
    EXPECT_EQ(fits->size(), 16388u);
    EXPECT_EQ(fits->back(), 0x5a);
    EXPECT_FALSE(encode_app_msg({101, "x", 0, 0, 1}, over).has_value());
    EXPECT_TRUE(encode_app_msg({101, std::string(63, 'n'), 0, 0, 1}, {}).has_value());
    EXPECT_FALSE(encode_app_msg({101, std::string(64, 'n'), 0, 0, 1}, {}).has_value());
}

}  // namespace
}  // namespace tovrinctl
