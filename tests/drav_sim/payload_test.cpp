// Payloads built by drav-sim checked against the openssl command line, and
// the reverse; fragmenting; refusals when opening the AP's messages.
#include <gtest/gtest.h>

#include "helpers.h"
#include "tools/drav-sim/payload.h"

namespace {

const char *cipher_for(std::size_t keylen) {
    return keylen == 16 ? "-aes-128-cbc" : keylen == 24 ? "-aes-192-cbc" : "-aes-256-cbc";
}

// Runs "openssl enc" without padding on in, returns what it wrote.
std::vector<uint8_t> openssl_cbc(bool encrypt, std::span<const uint8_t> in, std::span<const uint8_t> key,
                                 std::span<const uint8_t> iv) {
    temp_dir t;
    write_file(t.file("in"), in);
    std::string cmd = std::string("openssl enc ") + (encrypt ? "-e " : "-d ") + cipher_for(key.size()) + " -nopad -K " +
                      hex_of(key) + " -iv " + hex_of(iv) + " -in " + t.file("in") + " -out " + t.file("out") + " 2>" +
                      t.file("err");
    EXPECT_EQ(run_shell(cmd), 0) << cmd;
    return read_file(t.file("out"));
}

std::vector<uint8_t> openssl_md5(std::span<const uint8_t> in) {
    temp_dir t;
    write_file(t.file("in"), in);
    EXPECT_EQ(run_shell("openssl dgst -md5 -binary -out " + t.file("out") + " " + t.file("in")), 0);
    return read_file(t.file("out"));
}

std::vector<uint8_t> text(const std::string &s) { return {s.begin(), s.end()}; }

}  // namespace

TEST(DravSimPayload, PlainLayoutAndLimit) {
    dsim_bytes p;
    ASSERT_EQ(dsim_payload_plain(7, 3, text("hello"), p), "");
    EXPECT_EQ(hex_of(p),
              "21000011"
              "00000007"
              "00000003"
              "68656c6c6f");
    std::vector<uint8_t> most(TOVRIN_MAX_PLAIN_DATA, 1);
    EXPECT_EQ(dsim_payload_plain(1, 2, most, p), "");
    EXPECT_EQ(p.size(), TOVRIN_MAX_PAYLOAD);
    most.push_back(1);
    EXPECT_EQ(dsim_payload_plain(1, 2, most, p), "plain data of 16373 bytes exceeds 16372");
}

TEST(DravSimPayload, EncryptedPayloadOpensWithOpensslForEveryKeySize) {
    const dsim_iv iv = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf};
    struct row {
        std::size_t keylen, datalen, pad;
    } rows[] = {{16, 5, 11}, {16, 16, 0}, {16, 0, 0}, {24, 17, 15}, {32, 2000, 0}, {16, TOVRIN_MAX_ENC_DATA, 0}};
    for (const row &r : rows) {
        std::vector<uint8_t> key(r.keylen);
        for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(0x10 + i);
        std::vector<uint8_t> data(r.datalen);
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
        dsim_bytes p;
        ASSERT_EQ(dsim_payload_enc(7, 3, data, key, iv, p), "");
        std::size_t total = 48 + r.datalen + r.pad;
        ASSERT_EQ(p.size(), total);
        char head[64];
        std::snprintf(head, sizeof head,
                      "26%06zx"
                      "00000007"
                      "00000003"
                      "%08zx",
                      total, r.pad);
        EXPECT_EQ(hex_of(std::span(p).first(16)), head);
        EXPECT_EQ(hex_of(std::span(p).subspan(16, 16)), hex_of(iv));

        std::vector<uint8_t> plain = data;
        plain.resize(r.datalen + r.pad, 0);
        EXPECT_EQ(hex_of(std::span(p).subspan(32, 16)), hex_of(openssl_md5(plain))) << r.datalen;
        if (r.datalen + r.pad > 0) {
            EXPECT_EQ(openssl_cbc(false, std::span(p).subspan(48), key, iv), plain) << r.keylen;
        }
    }
    std::vector<uint8_t> key16(16, 1), key20(20, 1);
    dsim_bytes p;
    EXPECT_EQ(dsim_payload_enc(1, 2, text("x"), key20, iv, p), "key is not 16, 24 or 32 bytes");
    EXPECT_EQ(dsim_payload_enc(1, 2, text("x"), {}, iv, p), "no key set");
    std::vector<uint8_t> over(TOVRIN_MAX_ENC_DATA + 1, 0);
    EXPECT_EQ(dsim_payload_enc(1, 2, over, key16, iv, p), "encrypted data of 16337 bytes exceeds 16336");
}

TEST(DravSimPayload, OpensslEncryptedMessageIsOpenedAndVerified) {
    std::vector<uint8_t> key = bytes_of_hex("000102030405060708090a0b0c0d0e0f");
    std::vector<uint8_t> iv = bytes_of_hex("f0e0d0c0b0a090807060504030201000");
    std::vector<uint8_t> plain = text("message from the AP");  // 19 bytes, pad 13
    plain.resize(32, 0xee);  // pad content is the sender's choice; the digest covers it
    std::vector<uint8_t> ct = openssl_cbc(true, plain, key, iv);
    ASSERT_EQ(ct.size(), 32u);
    std::vector<uint8_t> msg = bytes_of_hex(
        "26000050"
        "00000065"
        "00000009"
        "0000000d");
    msg.insert(msg.end(), iv.begin(), iv.end());
    std::vector<uint8_t> md5 = openssl_md5(plain);
    msg.insert(msg.end(), md5.begin(), md5.end());
    msg.insert(msg.end(), ct.begin(), ct.end());

    dsim_opened o = dsim_payload_open(msg, key);
    ASSERT_EQ(o.status, dsim_open_status::ok) << o.problem;
    EXPECT_TRUE(o.enc);
    EXPECT_EQ(o.src, 101u);
    EXPECT_EQ(o.dst, 9u);
    EXPECT_EQ(o.len, 19u);
    EXPECT_EQ(std::string(o.data.begin(), o.data.end()), "message from the AP");

    std::vector<uint8_t> wrong_key = key;
    wrong_key[0] ^= 1;
    EXPECT_EQ(dsim_payload_open(msg, wrong_key).status, dsim_open_status::md5_bad);
    EXPECT_EQ(dsim_payload_open(msg, {}).status, dsim_open_status::no_key);
    std::vector<uint8_t> bad_digest = msg;
    bad_digest[40] ^= 0x80;
    EXPECT_EQ(dsim_payload_open(bad_digest, key).status, dsim_open_status::md5_bad);
}

TEST(DravSimPayload, MalformedMessagesAreRefusedBeforeDecryption) {
    std::vector<uint8_t> key(16, 3);
    struct row {
        const char *hex;
        const char *problem;
    } rows[] = {
        {"2100", "message of 2 bytes"},
        {"21000064"
         "00000001"
         "00000002"
         "0000",
         "length field 100 but 14 bytes"},
        {"2200000c"
         "00000001"
         "00000002",
         "unknown data type 0x22"},
        {"2100000a"
         "00000001"
         "0000",
         "message of 10 bytes, header needs 12"},
        {"2600000c"
         "00000001"
         "00000002",
         "message of 12 bytes, header needs 48"},
        {"26000031"
         "00000001"
         "00000002"
         "00000000"
         "00000000000000000000000000000000"
         "00000000000000000000000000000000"
         "00",
         "encrypted part of 1 bytes"},
        {"26000040"
         "00000001"
         "00000002"
         "00000010"
         "00000000000000000000000000000000"
         "00000000000000000000000000000000"
         "00000000000000000000000000000000",
         "pad 16 for 16 bytes"},
    };
    for (const row &r : rows) {
        dsim_opened o = dsim_payload_open(bytes_of_hex(r.hex), key);
        EXPECT_EQ(o.status, dsim_open_status::bad) << r.hex;
        EXPECT_EQ(o.problem, r.problem) << r.hex;
    }
    dsim_opened plain = dsim_payload_open(bytes_of_hex("2100000e"
                                                       "00000001"
                                                       "00000002"
                                                       "4142"),
                                          key);
    EXPECT_EQ(plain.status, dsim_open_status::ok);
    EXPECT_EQ(hex_of(plain.data), "4142");
}

TEST(DravSimPayload, FragmentsCarryNumbersAndFlags) {
    std::vector<uint8_t> payload(3000);
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    struct row {
        bool retx;
        const char *heads[3];
    } rows[] = {
        {false, {"010c0400deadfeed25000904", "010c0400deadfeed25010904", "010c03b8deadfeed24020904"}},
        {true, {"010c0400deadfeed27000904", "010c0400deadfeed27010904", "010c03b8deadfeed26020904"}},
    };
    for (const row &r : rows) {
        std::vector<dsim_bytes> f = dsim_fragment(payload, 9, 4, r.retx);
        ASSERT_EQ(f.size(), 3u);
        std::vector<uint8_t> joined;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(hex_of(std::span(f[i]).first(12)), r.heads[i]);
            joined.insert(joined.end(), f[i].begin() + 12, f[i].end());
        }
        EXPECT_EQ(joined, payload);
    }
    struct size_row {
        std::size_t len;
        std::vector<std::size_t> sizes;
    } sizes[] = {{12, {24}}, {1024, {1036}}, {1025, {1036, 13}}, {16384, std::vector<std::size_t>(16, 1036)}};
    for (const size_row &s : sizes) {
        std::vector<uint8_t> p(s.len, 0);
        std::vector<dsim_bytes> f = dsim_fragment(p, 1, 0, false);
        ASSERT_EQ(f.size(), s.sizes.size()) << s.len;
        EXPECT_EQ(f.size(), dsim_frag_count(s.len));
        for (std::size_t i = 0; i < f.size(); ++i) {
            EXPECT_EQ(f[i].size(), s.sizes[i]);
            EXPECT_EQ(f[i][8] & TOVRIN_F_MORE_FRAGS, i + 1 < f.size() ? 1 : 0) << s.len << " frag " << i;
        }
    }
}
