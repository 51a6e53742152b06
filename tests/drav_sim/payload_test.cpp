// What drav-sim seals opens with the openssl command line for every key size.
// The other way, a message openssl sealed, is in session.transcript.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/drav-sim/payload.h"

namespace {

// Hex text, and what "openssl ARGS" writes for in on its standard
// input (ok false when it fails): the reference the payloads are checked against.
std::string hex_of(std::span<const uint8_t> b) {
    std::string s;
    for (uint8_t c : b) s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
    return s;
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
            // AES-CBC without padding, the key size choosing the cipher.
            const std::string cbc = "enc -d -aes-" + std::to_string(r.keylen * 8) + "-cbc -nopad -K " + hex_of(key) +
                                    " -iv " + hex_of(iv);
            EXPECT_EQ(openssl(cbc, std::span(p).subspan(48), ok), plain) << r.keylen;
        }
        EXPECT_TRUE(ok);
    }
    const std::vector<uint8_t> x = {'x'}, key16(16, 1), key20(20, 1), over(TOVRIN_MAX_ENC_DATA + 1, 0);
    dsim_bytes p;
    EXPECT_EQ(dsim_payload_enc(1, 2, x, key20, iv, p), "key is not 16, 24 or 32 bytes");
    EXPECT_EQ(dsim_payload_enc(1, 2, x, {}, iv, p), "no key set");
    EXPECT_EQ(dsim_payload_enc(1, 2, over, key16, iv, p), "encrypted data of 16337 bytes exceeds 16336");
}

}  // namespace
