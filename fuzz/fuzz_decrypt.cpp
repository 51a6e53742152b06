// Encrypted payloads from the controller into the check and decryption, and
// straight into tovrin_open_payload. Every outcome is compared with a
// reference opened here with libcrypto's EVP interface: a payload is delivered
// exactly when its bounds hold, the key is usable and the digest matches, and
// then exactly the plaintext less the pad.
//
// Input: byte 0, bit 7: log at level 4; bits 0-1: the key (0, 3: 16 bytes from
// the input; 1: a length byte and that many bytes, refused above 20; 2: none).
// Then payloads, each led by a byte b:
//   b bit 0 clear: a valid '&' payload: data (16-bit length, bytes; with bit 2
//     set, a 16-bit length and one byte that seeds the content, so short inputs
//     reach the largest messages), 16 IV bytes, under the link's key, or under
//     another 16-byte key from the input when bit 1 is set; then b >> 4
//     changes, each a 16-bit offset and an XOR byte
//   b bit 0 set: raw payload bytes (16-bit length, bytes)
// Each payload travels as a new controller message to endpoint 101 (valid
// payloads) in fragments of 1024 bytes.
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

#include "harness.h"
#include "link/protect.h"
#include "relay/relay.h"

namespace {

struct Opened {
    int32_t src, dst;
    std::vector<uint8_t> data;
};

// Algorithms fetched and contexts made once for the process: fetching them
// anew for every payload was a third of the target's time.
struct Crypto {
    EVP_MD *md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    EVP_MD_CTX *md_ctx = EVP_MD_CTX_new();
    EVP_CIPHER *aes[3] = {EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr),
                          EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr),
                          EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)};
    EVP_CIPHER_CTX *cipher_ctx = EVP_CIPHER_CTX_new();
};

Crypto &crypto() {
    static Crypto c;
    return c;
}

std::vector<uint8_t> md5(const uint8_t *p, std::size_t n) {
    std::vector<uint8_t> out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    Crypto &c = crypto();
    FZ_CHECK(EVP_DigestInit_ex(c.md_ctx, c.md5, nullptr) == 1);
    FZ_CHECK(EVP_DigestUpdate(c.md_ctx, p, n) == 1);
    FZ_CHECK(EVP_DigestFinal_ex(c.md_ctx, out.data(), &len) == 1);
    out.resize(len);
    return out;
}

// AES-CBC decryption without padding; nullopt for a key length AES does not have.
std::optional<std::vector<uint8_t>> decrypt(const std::vector<uint8_t> &key, const uint8_t *iv, const uint8_t *in,
                                            std::size_t n) {
    Crypto &cr = crypto();
    const EVP_CIPHER *c = key.size() == 16   ? cr.aes[0]
                          : key.size() == 24 ? cr.aes[1]
                          : key.size() == 32 ? cr.aes[2]
                                             : nullptr;
    if (c == nullptr) return std::nullopt;
    std::vector<uint8_t> out(n + 16);
    EVP_CIPHER_CTX *ctx = cr.cipher_ctx;
    int a = 0, b = 0;
    FZ_CHECK(EVP_DecryptInit_ex(ctx, c, nullptr, key.data(), iv) == 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    FZ_CHECK(EVP_DecryptUpdate(ctx, out.data(), &a, in, static_cast<int>(n)) == 1);
    FZ_CHECK(EVP_DecryptFinal_ex(ctx, out.data() + a, &b) == 1);
    out.resize(static_cast<std::size_t>(a + b));
    return out;
}

// What the receiving side must make of a complete encrypted payload p.
std::optional<Opened> reference_open(const std::vector<uint8_t> &p, const std::vector<uint8_t> &key) {
    if (p.size() < TOVRIN_ENC_HDR_LEN || (p.size() - TOVRIN_ENC_HDR_LEN) % 16 != 0) return std::nullopt;
    const std::size_t body = p.size() - TOVRIN_ENC_HDR_LEN;
    const uint32_t pad = tovrin_load32(&p[12]);
    if (pad > body) return std::nullopt;
    auto plain = decrypt(key, &p[16], p.data() + TOVRIN_ENC_HDR_LEN, body);
    if (!plain) return std::nullopt;
    if (md5(plain->data(), body) != std::vector<uint8_t>(p.begin() + 32, p.begin() + 48)) return std::nullopt;
    plain->resize(body - pad);
    return Opened{static_cast<int32_t>(tovrin_load32(&p[4])), static_cast<int32_t>(tovrin_load32(&p[8])),
                  std::move(*plain)};
}

// What the whole receiving path must deliver for a reassembled payload p.
std::optional<Opened> reference_deliver(const std::vector<uint8_t> &p, const std::vector<uint8_t> &key,
                                        bool *handed_on) {
    *handed_on = false;
    if (p.size() < 4 || tovrin_load16(&p[2]) != p.size()) return std::nullopt;
    std::optional<Opened> m;
    if (p[0] == TOVRIN_DATA_ENC) {
        m = reference_open(p, key);
    } else if (p[0] == TOVRIN_DATA_PLAIN && p.size() >= TOVRIN_PLAIN_HDR_LEN) {
        m = Opened{static_cast<int32_t>(tovrin_load32(&p[4])), static_cast<int32_t>(tovrin_load32(&p[8])),
                   std::vector<uint8_t>(p.begin() + TOVRIN_PLAIN_HDR_LEN, p.end())};
    }
    if (!m) return std::nullopt;
    *handed_on = true;
    if (fz::endpoint_path(m->dst).empty() || m->data.size() > TOVRIN_APP_MAX_DATA) return std::nullopt;
    return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    const uint8_t mode = in.u8();
    fz::begin((mode & 0x80) != 0);
    if (!fz::bring_up()) fz::fail("link did not come up", __FILE__, __LINE__);

    std::vector<uint8_t> key;  // the key the daemon must hold
    switch (mode & 3) {
    case 0:
    case 3:
        key = in.bytes(16);
        fz::set_key(key);
        break;
    case 1: {
        const std::vector<uint8_t> k = in.bytes(in.u8() % 26);
        fz::set_key(k);
        if (k.size() <= TOVRIN_KEY_MAX) key = k;  // a longer key is refused, the old (none) stays
        break;
    }
    default: break;
    }
    FZ_CHECK(tovrin_gbl.keylen == key.size() && std::equal(key.begin(), key.end(), tovrin_gbl.key));
    sim::ipc_clear_sent();

    uint32_t next_id = TOVRIN_MSG_ID_START;
    uint8_t trans = 0;
    while (!in.empty()) {
        const uint8_t b = in.u8();
        std::vector<uint8_t> p;
        if (!(b & 1)) {
            std::vector<uint8_t> msg;
            if (b & 4) {
                msg.resize(std::min<std::size_t>(in.u16(), TOVRIN_MAX_ENC_DATA));
                const uint8_t seed = in.u8();
                for (std::size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(seed + i * 13);
            } else {
                msg = in.chunk(TOVRIN_MAX_ENC_DATA);
            }
            std::vector<uint8_t> iv = in.bytes(16);
            iv.resize(16);
            std::vector<uint8_t> k = (b & 2) ? in.bytes(16) : key;
            if (k.size() != 16) k.resize(16);  // a payload needs some AES key to be built
            p = fz::enc_payload(200, 101, msg, k, iv);
            FZ_CHECK(!p.empty());
            for (int i = 0; i < (b >> 4); ++i) {
                const uint16_t at = in.u16();
                const uint8_t x = in.u8();
                if (!p.empty()) p[at % p.size()] ^= x;
            }
        } else {
            p = in.chunk(TOVRIN_MAX_PAYLOAD);
        }

        // Straight into the check: dropped or opened exactly as the reference.
        if (p.size() >= 4 && p[0] == TOVRIN_DATA_ENC) {
            static uint8_t plain[TOVRIN_MAX_PAYLOAD];
            std::size_t n = 0;
            const char *why = nullptr;
            const bool ok = tovrin_open_payload(p.data(), p.size(), plain, &n, &why);
            const auto want = reference_open(p, key);
            FZ_CHECK(ok == want.has_value());
            if (ok) FZ_CHECK(n == want->data.size() && std::equal(want->data.begin(), want->data.end(), plain));
        }

        // Through the link: a new message every time.
        trans = static_cast<uint8_t>(trans + 1);
        const std::size_t before = sim::ipc_sent().size();
        for (const auto &f : fz::fragments(p, trans)) fz::from_ctrl(f);
        bool handed_on = false;
        const auto want = reference_deliver(p, key, &handed_on);
        const auto &sent = sim::ipc_sent();
        FZ_CHECK(sent.size() == before + (want ? 1 : 0));
        if (want) {
            const auto &s = sent.back();
            tovrin_app_msg_t h;
            FZ_CHECK(s.payload.size() == TOVRIN_APP_HDR_LEN + want->data.size());
            std::memcpy(&h, s.payload.data(), TOVRIN_APP_HDR_LEN);
            FZ_CHECK(h.src_ep == want->src && h.dst_ep == want->dst && h.len == want->data.size());
            FZ_CHECK(h.id == next_id);
            FZ_CHECK(std::equal(want->data.begin(), want->data.end(), s.payload.begin() + TOVRIN_APP_HDR_LEN));
        }
        if (handed_on) ++next_id;
        FZ_CHECK(tovrin_msg_id == next_id);
        fz::check_state();
    }
    fz::end();
    return 0;
}
