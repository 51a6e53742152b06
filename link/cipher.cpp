#include "link/cipher.h"

#include <openssl/evp.h>

#include <climits>

namespace {

// The fetched algorithms and the two contexts are made once and reused, so a
// transmission allocates nothing; the key schedule itself is set up anew at
// every call, so a new key takes effect at once.
struct evp_state {
    EVP_CIPHER *aes[3] = {};
    EVP_MD *md5 = nullptr;
    EVP_CIPHER_CTX *cctx = nullptr;
    EVP_MD_CTX *mctx = nullptr;

    evp_state() {
        aes[0] = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
        aes[1] = EVP_CIPHER_fetch(nullptr, "AES-192-CBC", nullptr);
        aes[2] = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
        md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
        cctx = EVP_CIPHER_CTX_new();
        mctx = EVP_MD_CTX_new();
    }
    ~evp_state() {
        EVP_MD_CTX_free(mctx);
        EVP_CIPHER_CTX_free(cctx);
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

bool tovrin_aes_cbc(bool encrypt, const uint8_t *in, uint8_t *out, std::size_t len,
                    const uint8_t *key, std::size_t keylen, const uint8_t iv[TOVRIN_IV_LEN]) {
    const EVP_CIPHER *cipher = aes_for(keylen);
    if (cipher == nullptr || len % TOVRIN_AES_BLOCK != 0 || len > INT_MAX) return false;
    EVP_CIPHER_CTX *ctx = evp().cctx;
    if (ctx == nullptr || EVP_CipherInit_ex2(ctx, cipher, key, iv, encrypt ? 1 : 0, nullptr) != 1)
        return false;
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    int outl = 0;
    if (len > 0 && EVP_CipherUpdate(ctx, out, &outl, in, static_cast<int>(len)) != 1) return false;
    int finl = 0;
    return EVP_CipherFinal_ex(ctx, out + outl, &finl) == 1;
}

void tovrin_md5(const uint8_t *in, std::size_t len, uint8_t out[TOVRIN_MD5_LEN]) {
    EVP_MD_CTX *ctx = evp().mctx;
    unsigned int n = 0;
    EVP_DigestInit_ex2(ctx, evp().md5, nullptr);
    EVP_DigestUpdate(ctx, in, len);
    EVP_DigestFinal_ex(ctx, out, &n);
}
