// Writes the seed corpora under <dir>/<target>/: small inputs made of valid
// traffic, in each target's input layout, so fuzzing starts from messages
// the daemon takes instead of guessing the header and the magic number.
// Usage: fuzz_make_corpus DIR
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/ipc_codes.h"
#include "harness.h"
#include "ipc_payloads.h"
#include "platform/ipc.h"
#include "platform/log.h"

namespace {

using Bytes = std::vector<uint8_t>;
std::string g_dir;

void put16(Bytes &b, std::size_t v) {
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v));
}
void append(Bytes &b, const Bytes &x) { b.insert(b.end(), x.begin(), x.end()); }
// A step that carries a length-prefixed chunk.
void chunk(Bytes &b, uint8_t op, const Bytes &x) {
    b.push_back(op);
    put16(b, x.size());
    append(b, x);
}

void write(const std::string &target, const std::string &name, const Bytes &b) {
    const std::filesystem::path dir = std::filesystem::path(g_dir) / target;
    std::filesystem::create_directories(dir);
    std::ofstream f(dir / name, std::ios::binary);
    f.write(reinterpret_cast<const char *>(b.data()), static_cast<std::streamsize>(b.size()));
}

Bytes pattern(std::size_t n, uint8_t seed) {
    Bytes d(n);
    for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(seed + i * 7);
    return d;
}

Bytes envelope(uint32_t type, uint32_t flags, const Bytes &payload) {
    Bytes e(VK_IPC_HDR_LEN);
    const uint32_t len = static_cast<uint32_t>(payload.size());
    std::memcpy(&e[0], &type, 4);
    std::memcpy(&e[4], &len, 4);
    std::memcpy(&e[8], &flags, 4);
    append(e, payload);
    return e;
}

Bytes host32s(std::initializer_list<int32_t> words) {
    Bytes b;
    for (int32_t w : words) {
        uint8_t x[4];
        std::memcpy(x, &w, 4);
        b.insert(b.end(), x, x + 4);
    }
    return b;
}

Bytes app_msg(int32_t src, int32_t dst, uint32_t flags, uint32_t id, const Bytes &data) {
    return app_payload(app_header(src, "seed", id, flags, dst, data.size()), data);
}

void recv_seeds() {
    using namespace fz;
    const Bytes reg = fz::ctrl_packet(TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN, TOVRIN_REG_LEN);
    const Bytes ka = fz::ctrl_packet(TOVRIN_CTRL_KEEPALIVE, TOVRIN_KA_LEN, TOVRIN_KA_LEN);
    Bytes b{0x00};  // registering
    chunk(b, 0x00, reg);
    chunk(b, 0x00, ka);
    b.insert(b.end(), {0xf0, 150});
    write("fuzz_recv", "registering", b);

    b = {0x05};  // up, a message of ours waiting
    chunk(b, 0x00, ack_for(1));
    for (const auto &f : fragments(plain_payload(200, 101, pattern(40, 1)), 1)) chunk(b, 0x00, f);
    chunk(b, 0x00, ka);
    b.insert(b.end(), {0xf0, 120});
    write("fuzz_recv", "up", b);

    b = {0x02};  // mid-reassembly of transaction 7
    auto frags = fragments(plain_payload(200, 101, Bytes(2500, 0x5a)), 7);
    chunk(b, 0x00, frags[2]);
    chunk(b, 0x00, fragments(plain_payload(200, 101, Bytes(2500, 0x5a)), 7, true)[0]);
    chunk(b, 0x00, frags[1]);
    write("fuzz_recv", "reassembly", b);

    b = {0x07};  // encryption on, a message waiting
    const Bytes key = pattern(16, 0x30);
    append(b, key);
    for (const auto &f : fragments(enc_payload(200, 102, pattern(1500, 9), key, pattern(16, 3)), 9)) chunk(b, 0x00, f);
    b.insert(b.end(), {0xfa, 20});
    append(b, pattern(20, 4));
    chunk(b, 0x00, ack_for(1));
    chunk(b, 0x00, ack_for(2));
    write("fuzz_recv", "encrypted", b);

    b = {0x81};  // verbose: refusals of every kind
    chunk(b, 0x00, fz::ctrl_packet(TOVRIN_CTRL_DRAVIP, TOVRIN_DRAVIP_LEN, TOVRIN_DRAVIP_LEN));
    chunk(b, 0x00, fz::ctrl_packet(0x21, 8, 8));
    chunk(b, 0x00, fz::ctrl_packet(TOVRIN_CTRL_REGISTER, 103, 103));
    chunk(b, 0x00, Bytes{1, 12, 0});
    Bytes bad = ka;
    bad[4] = 0;
    chunk(b, 0x00, bad);
    chunk(b, 0xe0, ka);
    chunk(b, 0xe0, frame(TOVRIN_F_DATA, 0, 1, 0, plain_payload(200, 101, {})));
    b.insert(b.end(), {0xf1, 255, 0xf1, 255});
    write("fuzz_recv", "refusals", b);
}

void ipc_seeds() {
    const uint32_t N = VK_IPC_F_NOTIFY, R = VK_IPC_F_REQUEST;
    const uint32_t ctrl = fz::ctrl_ip();
    Bytes ip(4);
    std::memcpy(ip.data(), &ctrl, 4);

    Bytes b{0x00};  // down
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(101, 200, 0x100, 1, pattern(10, 1))));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(102, 200, 0x300, 2, {})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_KEY, N, [] {
              Bytes k = host32s({16});
              append(k, pattern(16, 5));
              return k;
          }()));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_ENCRYPT, N, host32s({1})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_KARATE, N, host32s({7, 2000})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_KARATE, N, host32s({7, 0})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_CTRL_IP, N, ip));
    write("fuzz_ipc", "down", b);

    b = {0x81};  // up, verbose
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(101, 200, 0x100, 1, pattern(3000, 2))));
    chunk(b, 0x01, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(105, 200, 0x300, 2, pattern(5, 3))));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, R, app_msg(105, 200, 0x300, 3, {})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_GET_DRAV, R, {}));
    chunk(b, 0x00, envelope(TOVRIN_IPC_GET_LOG_CFG, R, {}));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SYSMON_HB, N, {}));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SYSTEM_READY, N, {}));
    chunk(b, 0x00, envelope(999, N, pattern(4, 0)));
    b.insert(b.end(), {0xf0, 200, 0xf0, 200});
    write("fuzz_ipc", "up", b);

    b = {0x01};  // up: key, encryption, messages, a new controller mid-transfer
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_KEY, N, [] {
              Bytes k = host32s({16});
              append(k, pattern(16, 5));
              return k;
          }()));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_ENCRYPT, N, host32s({1})));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(106, 200, 0x100, 1, pattern(100, 4))));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(107, 200, 0x100, 2, pattern(17, 4))));
    chunk(b, 0x00, envelope(TOVRIN_IPC_CTRL_IP, N, ip));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_LOG_CFG, N, host32s({1, 0, 0, 0, 0, 4096})));
    write("fuzz_ipc", "encrypt", b);

    b = {0x02};  // registering; malformed envelopes
    chunk(b, 0x00, Bytes{1, 2, 3});
    Bytes e = envelope(TOVRIN_IPC_SEND_MSG, N, app_msg(101, 200, 0x100, 1, pattern(8, 1)));
    e[4] = 200;  // length word disagrees
    chunk(b, 0x00, e);
    chunk(b, 0x00, envelope(TOVRIN_IPC_SEND_MSG, N, pattern(40, 1)));
    chunk(b, 0x00, envelope(TOVRIN_IPC_CTRL_IP, N, {1}));
    chunk(b, 0x00, envelope(TOVRIN_IPC_SET_KEY, N, host32s({64})));
    write("fuzz_ipc", "malformed", b);
}

// One fragment of fuzz_reasm: flags byte, frag, trans, length code, fill.
void add_frag(Bytes &b, uint8_t fb, uint8_t frag, uint8_t trans, uint8_t code, uint8_t fill) {
    b.insert(b.end(), {fb, frag, trans, code, fill});
}

void reasm_seeds() {
    Bytes b{0x00};
    add_frag(b, 0x0c, 0, 1, 4, 0);  // one whole message: header says 0 fragments + len%97
    write("fuzz_reasm", "single", b);

    b = {0x80};  // three fragments, then the whole message again with RETX
    add_frag(b, 0x0d, 0, 2, 0x80, 2);
    add_frag(b, 0x05, 1, 2, 0x80, 2);
    add_frag(b, 0x04, 2, 2, 40, 2);
    add_frag(b, 0x07, 0, 2, 0x80, 2);
    add_frag(b, 0x07, 1, 2, 0x80, 2);
    write("fuzz_reasm", "retransmit", b);

    b = {0x00};  // sixteen full fragments and one more
    for (uint8_t i = 0; i < 17; ++i) add_frag(b, static_cast<uint8_t>(i == 0 ? 0x0d : 0x05), i, 3, 0x80, 16);
    write("fuzz_reasm", "overflow", b);

    b = {0x00};  // gaps and a transaction never seen
    add_frag(b, 0x0d, 0, 1, 0x80, 1);
    add_frag(b, 0x05, 2, 1, 0x80, 1);
    add_frag(b, 0x05, 3, 2, 0x80, 1);
    add_frag(b, 0x04, 1, 1, 3, 1);
    write("fuzz_reasm", "gaps", b);
}

void decrypt_seeds() {
    Bytes b{0x00};
    append(b, pattern(16, 0x40));   // key
    chunk(b, 0x00, pattern(5, 1));  // valid payload
    append(b, pattern(16, 2));      // iv
    chunk(b, 0x00, pattern(2000, 3));
    append(b, pattern(16, 4));
    write("fuzz_decrypt", "valid", b);

    b = {0x80};
    append(b, pattern(16, 0x40));
    b.push_back(0x30);  // three changes
    put16(b, 17);
    append(b, pattern(16, 2));
    b.insert(b.end(), {0x00, 12, 0x10, 0x00, 40, 0x01, 0x00, 60, 0x80});
    b.push_back(0x02);  // under another key
    put16(b, 31);
    append(b, pattern(31, 6));
    append(b, pattern(16, 7));
    append(b, pattern(16, 8));
    write("fuzz_decrypt", "tampered", b);

    b = {0x01, 20};  // a 20-byte key: stored, but AES has no such size
    append(b, pattern(20, 9));
    chunk(b, 0x00, pattern(16, 1));
    append(b, pattern(16, 2));
    Bytes raw = fz::plain_payload(200, 101, pattern(9, 1));
    chunk(b, 0x01, raw);
    write("fuzz_decrypt", "badkey", b);

    b = {0x02};  // no key; raw encrypted-looking payloads
    Bytes e(64, 0);
    e[0] = TOVRIN_DATA_ENC;
    e[3] = 64;
    e[15] = 20;  // pad beyond the body
    chunk(b, 0x01, e);
    e.resize(56);
    e[3] = 56;
    chunk(b, 0x01, e);
    write("fuzz_decrypt", "bounds", b);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    g_dir = argv[1];
    // The builders need nothing of the daemon but its wire code; logging off.
    vk_log_conf_data[VK_LOG_W_LEVEL] = 0;
    recv_seeds();
    ipc_seeds();
    reasm_seeds();
    decrypt_seeds();
    return 0;
}
