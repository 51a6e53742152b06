// Payload bytes tovrinctl puts on the wire, written out in full. The daemon
// reads them in host order, so the expected bytes are those of this host.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "tools/tovrinctl/encode.h"

namespace tovrinctl {
namespace {

class TovrinctlEncode : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (std::endian::native != std::endian::little)
            GTEST_SKIP() << "expected bytes are written for a little-endian host";
    }
};

std::vector<uint8_t> bytes_of(const std::string &hex)
{
    auto b = parse_hex(hex);
    EXPECT_TRUE(b.has_value()) << hex;
    return b.value_or(std::vector<uint8_t>{});
}

TEST_F(TovrinctlEncode, HexTextRoundTripsAndRefusesWhatIsNotHex)
{
    EXPECT_EQ(parse_hex("0x0A0b"), (std::vector<uint8_t>{0x0a, 0x0b}));
    EXPECT_EQ(parse_hex("ff00"), (std::vector<uint8_t>{0xff, 0x00}));
    EXPECT_EQ(parse_hex(""), std::vector<uint8_t>{});
    for (const char *bad : {"abc", "0g", "0x0", "12 34", "1-"})
        EXPECT_FALSE(parse_hex(bad).has_value()) << bad;
    const std::vector<uint8_t> all = {0x00, 0x01, 0x7f, 0x80, 0xab, 0xff};
    EXPECT_EQ(to_hex(all), "00017f80abff");
}

TEST_F(TovrinctlEncode, KeyIsLengthWordThenTheKeyBytes)
{
    EXPECT_EQ(to_hex(encode_key(bytes_of("00112233445566778899aabbccddeeff"))),
              "10000000"
              "00112233445566778899aabbccddeeff");
    EXPECT_EQ(to_hex(encode_key(bytes_of("aabbcc"))), "03000000aabbcc");
}

TEST_F(TovrinctlEncode, EncryptStateIsOneSignedWord)
{
    EXPECT_EQ(to_hex(encode_encrypt(1)), "01000000");
    EXPECT_EQ(to_hex(encode_encrypt(-1)), "ffffffff");
    EXPECT_EQ(to_hex(encode_encrypt(0x01020304)), "04030201");
}

TEST_F(TovrinctlEncode, ControllerAddressIsNetworkOrderFirstOctetFirst)
{
    auto a = encode_controller("192.168.1.20");
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(to_hex(*a), "c0a80114");
    auto z = encode_controller("0.0.0.0");
    ASSERT_TRUE(z.has_value());
    EXPECT_EQ(to_hex(*z), "00000000");
    for (const char *bad : {"", "1.2.3", "1.2.3.4.5", "a.b.c.d", " 1.2.3.4", "1.2.3.256", "0x1.2.3.4"})
        EXPECT_FALSE(encode_controller(bad).has_value()) << bad;
}

TEST_F(TovrinctlEncode, RateRequestIsAppIdThenRate)
{
    EXPECT_EQ(to_hex(encode_karate(7, 3000)), "07000000b80b0000");
    EXPECT_EQ(to_hex(encode_karate(-1, 0)), "ffffffff00000000");
    EXPECT_EQ(to_hex(encode_karate(0, 4294967295u)), "00000000ffffffff");
}

TEST_F(TovrinctlEncode, LogConfigurationIsSixWords)
{
    EXPECT_EQ(to_hex(encode_log_conf({1, 0, 4, 1, 0, 2048})),
              "01000000"
              "00000000"
              "04000000"
              "01000000"
              "00000000"
              "00080000");
}

TEST_F(TovrinctlEncode, ApplicationMessageIsTheHeaderThenTheData)
{
    const std::string data = "hi";
    auto m = encode_app_msg({101, "tovrinctl", 9, 0x300, 200},
                            {reinterpret_cast<const uint8_t *>(data.data()), data.size()});
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(to_hex(*m),
              "65000000"                                   // src_ep 101
              "746f7672696e63746c" + std::string(110, '0') +  // "tovrinctl", zero to 64 bytes
              "09000000"                                   // id
              "00030000"                                   // flags 0x300
              "c8000000"                                   // dst_ep 200
              "02000000"                                   // len
              "6869");
    auto empty = encode_app_msg({-1, "", 0xffffffff, 0, -2}, {});
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(to_hex(*empty), "ffffffff" + std::string(128, '0') + "ffffffff00000000feffffff00000000");
}

TEST_F(TovrinctlEncode, ApplicationMessageRefusesWhatCannotFitOneIpcMessage)
{
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
