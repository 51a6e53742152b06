// Payload protection: plain and encrypted layouts, IVs, and ciphertext checked
// against the openssl command line in both directions.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "core/ipc_codes.h"
#include "link/send_queue.h"
#include "world.h"

namespace {

// A private directory for openssl's input and output files, removed at the end.
class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/tovrin-ossl-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string file(const char *name) const { return path_ + "/" + name; }
    bool ok() const { return !path_.empty(); }

private:
    std::string path_;
};

void write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Runs "openssl <args> -out <output> -in <input>" ("... <input>" for a digest,
// which takes its file as an argument) and returns the output's bytes.
std::vector<uint8_t> openssl(const std::string &args, const std::vector<uint8_t> &input, bool file_last = false) {
    TempDir dir;
    EXPECT_TRUE(dir.ok());
    write_file(dir.file("in"), input);
    const std::string cmd =
        "openssl " + args + " -out " + dir.file("out") + (file_last ? " " : " -in ") + dir.file("in") + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    EXPECT_NE(p, nullptr) << cmd;
    if (p == nullptr) return {};
    std::string said;
    char buf[256];
    while (std::fgets(buf, sizeof buf, p) != nullptr) said += buf;
    const int status = pclose(p);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd << "\n" << said;
    return read_file(dir.file("out"));
}

std::vector<uint8_t> ossl_decrypt(const std::vector<uint8_t> &ct, const std::vector<uint8_t> &key,
                                  const std::vector<uint8_t> &iv) {
    return openssl("enc -d -aes-128-cbc -nopad -K " + hex(key) + " -iv " + hex(iv), ct);
}
std::vector<uint8_t> ossl_encrypt(const std::vector<uint8_t> &pt, const std::vector<uint8_t> &key,
                                  const std::vector<uint8_t> &iv) {
    return openssl("enc -aes-128-cbc -nopad -K " + hex(key) + " -iv " + hex(iv), pt);
}
std::vector<uint8_t> ossl_md5(const std::vector<uint8_t> &bytes) { return openssl("dgst -md5 -binary", bytes, true); }

std::vector<uint8_t> slice(const std::vector<uint8_t> &v, std::size_t from, std::size_t to) {
    return std::vector<uint8_t>(v.begin() + static_cast<long>(from), v.begin() + static_cast<long>(to));
}

const std::vector<uint8_t> kKey = unhex("000102030405060708090a0b0c0d0e0f");
const std::vector<uint8_t> kKey2 = unhex("f0e1d2c3b4a5968778695a4b3c2d1e0f");

class Protect : public World {
protected:
    void set_encrypt(int32_t state) {
        std::vector<uint8_t> p(4);
        std::memcpy(p.data(), &state, 4);
        notify(TOVRIN_IPC_SET_ENCRYPT, p);
    }
    // Link up, key kKey, new messages encrypted.
    void up_encrypted() {
        bring_up();
        set_key(kKey);
        set_encrypt(1);
        clear_captures();
    }
    // The payload of the single datagram sent last.
    std::vector<uint8_t> last_payload() const {
        const auto d = data_sent();
        EXPECT_FALSE(d.empty());
        if (d.empty()) return {};
        return slice(d.back().bytes, 12, d.back().bytes.size());
    }
    static std::vector<uint8_t> pattern(std::size_t n) {
        std::vector<uint8_t> v(n);
        for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(0x30 + i);
        return v;
    }
};

TEST_F(Protect, PayloadLayoutsFollowTheDataLength) {
    up_encrypted();
    struct Row {
        std::size_t n;
        std::string head;  // the first 16 bytes of '&', the 12-byte header of '!'
        std::size_t len;
    };
    const Row encrypted[] = {
        {0, "26000030000000070000000300000000", 48},  {1, "2600004000000007000000030000000f", 64},
        {5, "2600004000000007000000030000000b", 64},  {16, "26000040000000070000000300000000", 64},
        {17, "2600005000000007000000030000000f", 80},
    };
    for (const Row &r : encrypted) {
        SCOPED_TRACE(r.n);
        clear_captures();
        app_send(7, 3, 0, pattern(r.n));
        ASSERT_EQ(data_sent().size(), 1u);
        const auto p = last_payload();
        ASSERT_EQ(p.size(), r.len);
        EXPECT_EQ(hex(slice(p, 0, 16)), r.head);
        // An empty message has no ciphertext; its digest is that of no bytes at all.
        if (r.n == 0) {
            EXPECT_EQ(hex(slice(p, 32, 48)), "d41d8cd98f00b204e9800998ecf8427e");
        }
        from_ctrl(ack_for(data_sent()[0].bytes[11]));
    }

    set_encrypt(0);
    const Row plain[] = {
        {0, "2100000c0000000700000003", 12},
        {5, "210000110000000700000003", 17},
    };
    for (const Row &r : plain) {
        SCOPED_TRACE(r.n);
        clear_captures();
        app_send(7, 3, 0, pattern(r.n));
        const auto p = last_payload();
        ASSERT_EQ(p.size(), r.len);
        EXPECT_EQ(hex(slice(p, 0, 12)), r.head);
        EXPECT_TRUE(slice(p, 12, p.size()) == pattern(r.n));
        from_ctrl(ack_for(data_sent()[0].bytes[11]));
    }
}

TEST_F(Protect, OnlyEncryptStateOneEncrypts) {
    bring_up();
    set_key(kKey);
    const std::pair<int32_t, uint8_t> rows[] = {{0, '!'}, {1, '&'}, {2, '!'}, {-1, '!'}, {0x101, '!'}};
    for (auto [state, type] : rows) {
        SCOPED_TRACE(state);
        set_encrypt(state);
        clear_captures();
        app_send(101, 5, 0, {1, 2, 3});
        ASSERT_EQ(data_sent().size(), 1u);
        EXPECT_EQ(last_payload()[0], type);
        from_ctrl(ack_for(data_sent()[0].bytes[11]));
    }
}

TEST_F(Protect, IvIsDrawnFromTimeAndCountAndKeptForEveryTransmission) {
    up_encrypted();
    auto expected_iv = [](uint32_t count) {
        const uint32_t seed = static_cast<uint32_t>((1700000000 + sim::now_us() / kSec) % 2147483647) ^ count;
        std::srand(seed);
        std::vector<uint8_t> iv(16);
        for (int i = 0; i < 4; ++i) tovrin_store32(&iv[4 * i], static_cast<uint32_t>(std::rand()));
        return iv;
    };
    // Two messages in the same second: the count alone tells their IVs apart.
    app_send(101, 5, 0, {1});
    const auto first = slice(last_payload(), 16, 32);
    EXPECT_EQ(hex(first), hex(expected_iv(1)));
    app_send(101, 5, 0, {2});  // queued behind the first
    from_ctrl(ack_for(1));
    const auto second = slice(last_payload(), 16, 32);
    EXPECT_EQ(hex(second), hex(expected_iv(2)));
    EXPECT_NE(first, second);

    // A retransmission seconds later keeps the IV made with the payload.
    run_answering(1 * kSec);
    ASSERT_EQ(data_sent().size(), 3u);
    EXPECT_EQ(data_sent()[2].bytes[8], 0x26);
    EXPECT_EQ(hex(slice(last_payload(), 16, 32)), hex(second));
}

TEST_F(Protect, WireCiphertextOpensWithTheOpensslCommandLine) {
    up_encrypted();
    const std::vector<uint8_t> data = pattern(37);
    app_send(7, 3, 0, data);
    const auto p = last_payload();
    ASSERT_EQ(p.size(), 96u);  // 48 + 37 + 11
    EXPECT_EQ(hex(slice(p, 0, 16)), "2600006000000007000000030000000b");
    const auto plain = ossl_decrypt(slice(p, 48, 96), kKey, slice(p, 16, 32));
    ASSERT_EQ(plain.size(), 48u);
    EXPECT_TRUE(slice(plain, 0, 37) == data);
    EXPECT_EQ(hex(slice(p, 32, 48)), hex(ossl_md5(plain)));

    // The five-byte message: one block holds its data and eleven pad bytes.
    from_ctrl(ack_for(1));
    clear_captures();
    app_send(7, 3, 0, {'h', 'e', 'l', 'l', 'o'});
    const auto q = last_payload();
    ASSERT_EQ(q.size(), 64u);
    EXPECT_EQ(hex(slice(q, 0, 16)), "2600004000000007000000030000000b");
    const auto block = ossl_decrypt(slice(q, 48, 64), kKey, slice(q, 16, 32));
    ASSERT_EQ(block.size(), 16u);
    EXPECT_EQ(hex(slice(block, 0, 5)), "68656c6c6f");
    EXPECT_EQ(hex(slice(q, 32, 48)), hex(ossl_md5(block)));
}

TEST_F(Protect, OpensslCiphertextFromTheControllerIsDelivered) {
    bring_up();
    set_key(kKey);
    const std::vector<uint8_t> iv = unhex("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf");
    const std::vector<uint8_t> data = pattern(59);
    std::vector<uint8_t> plain = data;
    plain.insert(plain.end(), {0xde, 0xad, 0xbe, 0xef, 0x99});  // pad bytes of any content
    std::vector<uint8_t> payload = unhex("26000070 00000009 00000065 00000005");
    payload.insert(payload.end(), iv.begin(), iv.end());
    const auto md5 = ossl_md5(plain);
    payload.insert(payload.end(), md5.begin(), md5.end());
    const auto ct = ossl_encrypt(plain, kKey, iv);
    ASSERT_EQ(ct.size(), 64u);
    payload.insert(payload.end(), ct.begin(), ct.end());
    ASSERT_EQ(payload.size(), 112u);

    // Delivered whatever the AP's own encryption state.
    uint8_t trans = 0x70;
    for (int32_t state : {0, 1}) {
        SCOPED_TRACE(state);
        set_encrypt(state);
        clear_captures();
        from_ctrl(frame(0x24, 0, trans, 0, payload));
        ASSERT_EQ(sent().size(), 1u);
        EXPECT_EQ(hex(sent()[0].bytes), strf("010c0000deadfeed0800%02x00", trans));
        const auto got = app_msgs_to("/vk/ipc/gelvar");
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].hdr.src_ep, 9);
        EXPECT_EQ(got[0].hdr.len, 59u);
        EXPECT_TRUE(got[0].data == data);
        ++trans;
    }
    // And a plain message is delivered while the AP encrypts its own.
    set_encrypt(1);
    clear_captures();
    from_ctrl(frame(0x24, 0, trans, 0, plain_payload(9, 101, {0x42})));
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(hex(app_msgs_to("/vk/ipc/gelvar")[0].data), "42");
}

TEST_F(Protect, NewKeyChangesTheRetransmittedCiphertextButNotTheIv) {
    up_encrypted();
    const std::vector<uint8_t> data = pattern(40);
    app_send(101, 5, 0, data);
    const auto before = last_payload();
    // Neither a new key nor a new encryption state changes the queued message's form.
    set_key(kKey2);
    set_encrypt(0);
    run_answering(1 * kSec);
    ASSERT_EQ(data_sent().size(), 2u);
    const auto after = last_payload();
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(after[0], '&');
    EXPECT_EQ(hex(slice(after, 0, 48)), hex(slice(before, 0, 48)));  // IV and digest unchanged
    EXPECT_NE(slice(after, 48, after.size()), slice(before, 48, before.size()));
    const auto old_plain = ossl_decrypt(slice(before, 48, before.size()), kKey, slice(before, 16, 32));
    const auto new_plain = ossl_decrypt(slice(after, 48, after.size()), kKey2, slice(after, 16, 32));
    EXPECT_TRUE(old_plain == new_plain);
    EXPECT_TRUE(slice(new_plain, 0, 40) == data);
}

TEST_F(Protect, KeyThatCannotBeSetSendsNothingAndTheRetriesFailTheMessage) {
    struct Row {
        const char *what;
        std::vector<uint8_t> key;  // empty: never set
    };
    const Row rows[] = {{"no key", {}}, {"20-byte key", std::vector<uint8_t>(20, 0x11)}};
    bring_up();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        if (tovrin_gbl.status == 0) from_ctrl(reg_response());
        ASSERT_EQ(tovrin_gbl.status, 1);
        if (!r.key.empty()) set_key(r.key);
        ASSERT_EQ(tovrin_gbl.keylen, r.key.size());
        set_encrypt(1);
        clear_captures();
        const uint64_t t0 = sim::now_us();
        const std::size_t mark = log_mark();
        app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1, 2, 3});
        EXPECT_NE(log_since(mark).find("NOTE: Encrypt key set failed\n"), std::string::npos);
        EXPECT_TRUE(data_sent().empty());
        run_answering(31 * kSec);
        const std::string log = log_since(mark);
        int fails = 0;
        for (std::size_t p = log.find("NOTE: Encrypt key set failed\n"); p != std::string::npos;
             p = log.find("NOTE: Encrypt key set failed\n", p + 1))
            ++fails;
        EXPECT_EQ(fails, 5);  // the first transmission and four retransmissions
        EXPECT_TRUE(data_sent().empty());
        EXPECT_EQ(tovrin_gbl.status, 0);
        const auto answers = app_msgs_to("/vk/ipc/gelvar");
        ASSERT_GE(answers.size(), 1u);
        EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
        EXPECT_EQ(sim::ipc_sent().front().at_us - t0, 31 * kSec);
    }
}

TEST_F(Protect, ReceivedMessageFailingItsDigestIsAcknowledgedThenDropped) {
    bring_up();
    set_key(kKey);
    const std::vector<uint8_t> iv = unhex("0f0e0d0c0b0a09080706050403020100");
    const std::vector<uint8_t> good = enc_payload(9, 101, pattern(20), kKey, iv);
    ASSERT_EQ(good.size(), 80u);
    auto flip = [&](std::size_t at) {
        auto p = good;
        p[at] ^= 0x01;
        return p;
    };
    struct Row {
        const char *what;
        std::vector<uint8_t> payload;
        std::vector<uint8_t> key;
        bool delivered;
    };
    const Row rows[] = {
        {"intact", good, kKey, true},
        {"digest byte changed", flip(40), kKey, false},
        {"ciphertext byte changed", flip(70), kKey, false},
        {"other key", good, kKey2, false},
    };
    uint8_t trans = 5;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        set_key(r.key);
        clear_captures();
        const std::size_t mark = log_mark();
        from_ctrl(frame(0x24, 0, trans, 0, r.payload));
        ASSERT_EQ(sent().size(), 1u);
        EXPECT_EQ(hex(sent()[0].bytes), strf("010c0000deadfeed0800%02x00", trans));
        EXPECT_EQ(app_msgs().size(), r.delivered ? 1u : 0u);
        EXPECT_EQ(log_since(mark).find(strf("NOTE: <<tovrin_recv_data: Invalid checksum! Drop msg %d from 198.18.0.1\n",
                                            trans)) != std::string::npos,
                  !r.delivered);
        ++trans;
    }

    // No key at all: decryption cannot start, which says so on the console, and the
    // message fails its check.
    set_key({});
    ASSERT_EQ(tovrin_gbl.keylen, 0u);
    clear_captures();
    const std::size_t mark = log_mark();
    testing::internal::CaptureStdout();
    from_ctrl(frame(0x24, 0, trans, 0, good));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Decrypt key set failed\n"), std::string::npos);
    EXPECT_NE(
        log_since(mark).find(strf("NOTE: <<tovrin_recv_data: Invalid checksum! Drop msg %d from 198.18.0.1\n", trans)),
        std::string::npos);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_TRUE(app_msgs().empty());
}

}  // namespace
