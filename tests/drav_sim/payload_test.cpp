// drav-sim's encrypted payloads checked against the openssl command line both
// ways: what it seals opens with openssl for every key size, and what openssl
// seals it opens and verifies.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/drav-sim/payload.h"

namespace {

// Hex text both ways, and what "openssl ARGS" writes for in on its standard
// input (ok false when it fails): the reference the payloads are checked against.
std::string hex_of(std::span<const uint8_t> b) {
    std::string s;
    for (uint8_t c : b) s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
    return s;
}

std::vector<uint8_t> bytes_of_hex(const std::string &hex) {
    std::vector<uint8_t> b;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return b;
}

std::vector<uint8_t> openssl(const std::string &args, std::span<const uint8_t> in, bool &ok) {
    char dir[] = "/tmp/dsim-test-XXXXXX";
    ok = ::mkdtemp(dir) != nullptr;
    if (!ok) return {};
    const std::string d = dir;
    std::ofstream(d + "/in", std::ios::binary).write(reinterpret_cast<const char *>(in.data()), std::streamsize(in.size()));
    const int st = std::system(("openssl " + args + " -out " + d + "/out <" + d + "/in 2>" + d + "/err").c_str());
    ok = WIFEXITED(st) && WEXITSTATUS(st) == 0;
    std::ifstream f(d + "/out", std::ios::binary);
    std::vector<uint8_t> out{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    std::filesystem::remove_all(d);
    return out;
}

// AES-CBC without padding, the key size choosing the cipher.
std::string cbc(bool encrypt, std::span<const uint8_t> key, std::span<const uint8_t> iv) {
    return std::string("enc ") + (encrypt ? "-e" : "-d") + " -aes-" + std::to_string(key.size() * 8) + "-cbc -nopad -K " +
           hex_of(key) + " -iv " + hex_of(iv);
}

TEST(DravSimPayload, EncryptedPayloadOpensWithOpensslForEveryKeySize) {
    const dsim_iv iv = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf};
    struct row {
        std::size_t keylen, datalen, pad;
    } rows[] = {{16, 5, 11}, {16, 16, 0}, {16, 0, 0}, {24, 17, 15}, {32, 2000, 0}, {16, TOVRIN_MAX_ENC_DATA, 0}};
    for (const row &r : rows) {
        std::vector<uint8_t> key(r.keylen), data(r.datalen);
        for (std::size_t i = 0; i < key.size(); ++i) key[i] = uint8_t(0x10 + i);
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7);
        dsim_bytes p;
        ASSERT_EQ(dsim_payload_enc(7, 3, data, key, iv, p), "");
        const std::size_t total = 48 + r.datalen + r.pad;
        ASSERT_EQ(p.size(), total);
        char head[33];
        std::snprintf(head, sizeof head, "26%06zx0000000700000003%08zx", total, r.pad);
        EXPECT_EQ(hex_of(std::span(p).first(16)), head);
        EXPECT_EQ(hex_of(std::span(p).subspan(16, 16)), hex_of(iv));
        std::vector<uint8_t> plain = data;
        plain.resize(r.datalen + r.pad, 0);
        bool ok = false;
        EXPECT_EQ(hex_of(std::span(p).subspan(32, 16)), hex_of(openssl("dgst -md5 -binary", plain, ok))) << r.datalen;
        if (!plain.empty()) {
            EXPECT_EQ(openssl(cbc(false, key, iv), std::span(p).subspan(48), ok), plain) << r.keylen;
        }
        EXPECT_TRUE(ok);
    }
    const std::vector<uint8_t> x = {'x'}, key16(16, 1), key20(20, 1), over(TOVRIN_MAX_ENC_DATA + 1, 0);
    dsim_bytes p;
    EXPECT_EQ(dsim_payload_enc(1, 2, x, key20, iv, p), "key is not 16, 24 or 32 bytes");
    EXPECT_EQ(dsim_payload_enc(1, 2, x, {}, iv, p), "no key set");
    EXPECT_EQ(dsim_payload_enc(1, 2, over, key16, iv, p), "encrypted data of 16337 bytes exceeds 16336");
}

TEST(DravSimPayload, OpensslEncryptedMessageIsOpenedAndVerified) {
    const std::vector<uint8_t> key = bytes_of_hex("000102030405060708090a0b0c0d0e0f");
    const std::vector<uint8_t> iv = bytes_of_hex("f0e0d0c0b0a090807060504030201000");
    const std::string text = "message from the AP";  // 19 bytes, pad 13
    std::vector<uint8_t> plain(text.begin(), text.end());
    plain.resize(32, 0xee);  // pad content is the sender's choice; the digest covers it
    bool ok = false;
    std::vector<uint8_t> msg = bytes_of_hex("260000500000006500000009" "0000000d");
    msg.insert(msg.end(), iv.begin(), iv.end());
    for (const auto &part : {openssl("dgst -md5 -binary", plain, ok), openssl(cbc(true, key, iv), plain, ok)})
        msg.insert(msg.end(), part.begin(), part.end());
    ASSERT_TRUE(ok);
    ASSERT_EQ(msg.size(), 80u);
    const dsim_opened o = dsim_payload_open(msg, key);
    ASSERT_EQ(o.status, dsim_open_status::ok) << o.problem;
    EXPECT_TRUE(o.enc);
    EXPECT_EQ(o.src, 101u);
    EXPECT_EQ(o.dst, 9u);
    EXPECT_EQ(o.len, 19u);
    EXPECT_EQ(std::string(o.data.begin(), o.data.end()), text);
    std::vector<uint8_t> wrong_key = key;
    wrong_key[0] ^= 1;
    EXPECT_EQ(dsim_payload_open(msg, wrong_key).status, dsim_open_status::md5_bad);
    EXPECT_EQ(dsim_payload_open(msg, {}).status, dsim_open_status::no_key);
}

}  // namespace
