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

#include "harness.h"
#include "link/protect.h"

namespace {

// Algorithms fetched and contexts made once for the process: fetching them
// anew for every payload was a third of the target's time.
EVP_MD *const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
EVP_MD_CTX *const md_ctx = EVP_MD_CTX_new();
EVP_CIPHER *const aes[3] = {EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr),
                            EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr),
                            EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)};
EVP_CIPHER_CTX *const cipher_ctx = EVP_CIPHER_CTX_new();

// What the receiving side must make of a complete encrypted payload p.
std::optional<fz::Delivery> reference_open(const std::vector<uint8_t> &p, const std::vector<uint8_t> &key) {
    if (p.size() < TOVRIN_ENC_HDR_LEN || (p.size() - TOVRIN_ENC_HDR_LEN) % 16 != 0) return std::nullopt;
    const std::size_t body = p.size() - TOVRIN_ENC_HDR_LEN;
    const uint32_t pad = tovrin_load32(&p[12]);
    // AES-CBC without padding, for the key lengths AES has.
    if (pad > body || (key.size() != 16 && key.size() != 24 && key.size() != 32)) return std::nullopt;
    std::vector<uint8_t> plain(body + 16);
    int a = 0, b = 0;
    FZ_CHECK(EVP_DecryptInit_ex(cipher_ctx, aes[(key.size() - 16) / 8], nullptr, key.data(), &p[16]) == 1);
    EVP_CIPHER_CTX_set_padding(cipher_ctx, 0);
    FZ_CHECK(EVP_DecryptUpdate(cipher_ctx, plain.data(), &a, &p[TOVRIN_ENC_HDR_LEN], static_cast<int>(body)) == 1);
    FZ_CHECK(EVP_DecryptFinal_ex(cipher_ctx, plain.data() + a, &b) == 1);
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    FZ_CHECK(EVP_DigestInit_ex(md_ctx, md5, nullptr) == 1 && EVP_DigestUpdate(md_ctx, plain.data(), body) == 1 &&
             EVP_DigestFinal_ex(md_ctx, digest, &n) == 1);
    if (!std::equal(digest, digest + 16, &p[32])) return std::nullopt;
    plain.resize(body - pad);
    return fz::Delivery{static_cast<int32_t>(tovrin_load32(&p[4])), static_cast<int32_t>(tovrin_load32(&p[8])),
                        std::move(plain)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    const uint8_t mode = fz::begin(in);
    fz::bring_up();

    std::vector<uint8_t> key;  // the key the daemon must hold
    if ((mode & 3) != 2) {
        key = (mode & 3) == 1 ? in.bytes(in.u8() % 26) : in.bytes(16);
        fz::set_key(key);
        if (key.size() > TOVRIN_KEY_MAX) key.clear();  // a longer key is refused, the old (none) stays
    }
    FZ_CHECK(tovrin_gbl.keylen == key.size() && std::equal(key.begin(), key.end(), tovrin_gbl.key));
    sim::ipc_clear_sent();

    uint32_t next_id = TOVRIN_MSG_ID_START;
    for (uint8_t trans = 1; !in.empty(); ++trans) {
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
            k.resize(16);  // a payload needs some AES key to be built
            p = enc_payload(200, 101, msg, k, iv);
            FZ_CHECK(!p.empty());
            for (int i = 0; i < (b >> 4); ++i) {
                const uint16_t at = in.u16();
                p[at % p.size()] ^= in.u8();
            }
        } else {
            p = in.chunk(TOVRIN_MAX_PAYLOAD);
        }

        // Straight into the check: dropped or opened exactly as the reference.
        const bool enc = p.size() >= 4 && p[0] == TOVRIN_DATA_ENC;
        const auto opened = enc ? reference_open(p, key) : std::nullopt;
        if (enc) {
            static uint8_t plain[TOVRIN_MAX_PAYLOAD];
            std::size_t n = 0;
            const char *why = nullptr;
            const bool ok = tovrin_open_payload(p.data(), p.size(), plain, &n, &why);
            FZ_CHECK(ok == opened.has_value());
            if (ok) FZ_CHECK(n == opened->data.size() && std::equal(plain, plain + n, opened->data.begin()));
        }

        // Through the link, a new message every time: what passes the length
        // field's check and opens is handed on (and takes an id), and
        // delivered when deliverable.
        const std::size_t before = sim::ipc_sent().size();
        for (const auto &f : fragments(p, trans)) fz::from_ctrl(f);
        const bool length_ok = p.size() >= 4 && tovrin_load16(&p[2]) == p.size();
        const auto want = !length_ok ? std::nullopt : enc ? opened : fz::open_plain(p);
        const auto &sent = sim::ipc_sent();
        const bool delivered = want && fz::deliverable(*want);
        FZ_CHECK(sent.size() == before + delivered);
        if (delivered) fz::check_delivery(sent.back(), *want, next_id);
        if (want) ++next_id;
        FZ_CHECK(tovrin_msg_id == next_id);
        fz::check_state();
    }
    fz::end();
    return 0;
}
