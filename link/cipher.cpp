// The OpenSSL backend of link/cipher.h (libcrypto 3.x and its EVP interface);
// link/cipher_mbedtls.cpp is the other one, chosen with -DTOVRIN_CRYPTO.
#include "link/cipher.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>

namespace {

// The fetched algorithms and the contexts are made once and reused, so a
// transmission allocates nothing; the key schedule itself is set up anew at
// every call, so a new key takes effect at once. Each direction has its own
// cipher context, and a context already set up for the wanted cipher is
// re-keyed without naming the cipher again: naming it makes libcrypto free
// and allocate the context's provider state, a heap call at every message.
struct evp_state {
    EVP_CIPHER *aes[3] = {};
    EVP_CIPHER_CTX *cctx[2] = {};           // [1] encrypts, [0] decrypts
    const EVP_CIPHER *cctx_cipher[2] = {};  // the cipher each was last set up with
    EVP_MD *md5 = nullptr;
    EVP_MD_CTX *mctx = nullptr;

    evp_state() {
        // The system's OpenSSL configuration is not read: the daemon needs only
        // the default provider's AES-CBC and MD5, and reading it costs about
        // 60 KiB of heap for the life of the process.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
        aes[0] = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
        aes[1] = EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr);
        aes[2] = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
        cctx[0] = EVP_CIPHER_CTX_new();
        cctx[1] = EVP_CIPHER_CTX_new();
        md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
        mctx = EVP_MD_CTX_new();
    }
    ~evp_state() {
        EVP_CIPHER_CTX_free(cctx[0]);
        EVP_CIPHER_CTX_free(cctx[1]);
        EVP_MD_CTX_free(mctx);
        EVP_MD_free(md5);
        for (EVP_CIPHER *c : aes) EVP_CIPHER_free(c);
    }
    evp_state(const evp_state &) = delete;
    evp_state &operator=(const evp_state &) = delete;
};

evp_state &evp() {
    static evp_state s;
    return s;
}

const EVP_CIPHER *aes_for(std::size_t keylen) {
    switch (keylen) {
    case 16: return evp().aes[0];
    case 24: return evp().aes[1];
    case 32: return evp().aes[2];
    default: return nullptr;
    }
}

}  // namespace

bool tovrin_aes_cbc(bool encrypt, const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key,
                    std::size_t keylen, const uint8_t iv[TOVRIN_IV_LEN]) {
    const EVP_CIPHER *cipher = aes_for(keylen);
    if (cipher == nullptr || len % TOVRIN_AES_BLOCK != 0 || len > INT_MAX) return false;
    evp_state &st = evp();
    const int dir = encrypt ? 1 : 0;
    EVP_CIPHER_CTX *ctx = st.cctx[dir];
    if (ctx == nullptr) return false;
    const bool same = st.cctx_cipher[dir] == cipher;
    st.cctx_cipher[dir] = nullptr;  // set again only once the set-up succeeded
    if (EVP_CipherInit_ex2(ctx, same ? nullptr : cipher, key, iv, dir, nullptr) != 1) return false;
    if (EVP_CIPHER_CTX_set_padding(ctx, 0) != 1) return false;
    st.cctx_cipher[dir] = cipher;
    int outl = 0;
    if (len > 0 && EVP_CipherUpdate(ctx, out, &outl, in, static_cast<int>(len)) != 1) return false;
    int finl = 0;
    return EVP_CipherFinal_ex(ctx, out + outl, &finl) == 1;
}

bool tovrin_md5(const uint8_t *in, std::size_t len, uint8_t out[TOVRIN_MD5_LEN]) {
    // Each digest set-up makes one heap call inside libcrypto (whether the
    // context is re-initialised or copied); the deprecated MD5_* calls that
    // would avoid it are not used.
    evp_state &st = evp();
    unsigned int n = 0;
    if (st.mctx != nullptr && st.md5 != nullptr && EVP_DigestInit_ex2(st.mctx, st.md5, nullptr) == 1 &&
        EVP_DigestUpdate(st.mctx, in, len) == 1 && EVP_DigestFinal_ex(st.mctx, out, &n) == 1 && n == TOVRIN_MD5_LEN)
        return true;
    std::memset(out, 0, TOVRIN_MD5_LEN);
    return false;
}
