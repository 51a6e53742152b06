// Payload protection: the layouts of both payload forms and the IV each
// encrypted message draws. AES-CBC and MD5 themselves are checked against the
// openssl command line (tests/drav_sim/payload_test.cpp), on both backends.
#include <cctype>
#include <cstdlib>

#include "core/ipc_codes.h"
#include "link/cipher.h"
#include "world.h"

namespace {

using Protect = World;

TEST_F(Protect, PayloadLayoutsFollowTheDataLengthAndEachMessageDrawsItsIv) {
    const auto key = unhex("000102030405060708090a0b0c0d0e0f");
    bring_up();
    set_key(key);
    struct Row {
        bool encrypted;
        std::size_t n;
        const char *head;  // the first 16 bytes of '&', the 12-byte header of '!'
        std::size_t len;
    };
    const Row rows[] = {
        {true, 0, "26000030000000070000000300000000", 48},  {true, 1, "2600004000000007000000030000000f", 64},
        {true, 16, "26000040000000070000000300000000", 64}, {true, 17, "2600005000000007000000030000000f", 80},
        {false, 0, "2100000c0000000700000003", 12},         {false, 5, "210000110000000700000003", 17},
    };
    uint32_t count = 0;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.len);
        notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(r.encrypted));
        clear_captures();
        const auto data = pattern(r.n);
        app_send(7, 3, 0, data);
        ASSERT_EQ(data_sent().size(), 1u);
        const auto d = data_sent()[0].bytes;
        const std::vector<uint8_t> p(d.begin() + 12, d.end());
        ASSERT_EQ(p.size(), r.len);
        EXPECT_EQ(hex({p.begin(), p.begin() + (r.encrypted ? 16 : 12)}), r.head);
        from_ctrl(ack_for(d[11]));
        EXPECT_TRUE(r.encrypted || std::vector<uint8_t>(p.begin() + 12, p.end()) == data);
        if (!r.encrypted) continue;
        // The IV: rand() seeded with the time and the count of encrypted messages.
        std::srand(static_cast<uint32_t>((1700000000 + sim::now_us() / kSec) % 2147483647) ^ ++count);
        std::vector<uint8_t> iv(16), plain(r.len - 48);
        for (int i = 0; i < 4; ++i) tovrin_store32(&iv[4 * i], static_cast<uint32_t>(std::rand()));
        EXPECT_EQ(hex({p.begin() + 16, p.begin() + 32}), hex(iv));
        ASSERT_TRUE(tovrin_aes_cbc(false, &p[48], plain.data(), plain.size(), key.data(), 16, iv.data()));
        EXPECT_TRUE(std::vector<uint8_t>(plain.begin(), plain.begin() + r.n) == data);
        uint8_t md[16];
        ASSERT_TRUE(tovrin_md5(plain.data(), plain.size(), md));
        EXPECT_EQ(hex({p.begin() + 32, p.begin() + 48}), hex({md, md + 16}));
    }
    // The key reaches no log line, even at the debug level the tests run at.
    std::string log = log_text();
    for (char &c : log) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char *k : {"0102030405060708090a0b0c0d0e0f", "01 02 03 04 05 06 07 08", "\x01\x02\x03\x04\x05\x06"})
        EXPECT_EQ(log.find(k), std::string::npos) << k;
}

}  // namespace
