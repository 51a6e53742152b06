// The OpenSSL backend of link/cipher.h (libcrypto 3.x and its EVP interface);
// link/cipher_mbedtls.cpp is the other one, chosen with -DTOVRIN_CRYPTO.
#include "link/cipher.h"

#include <openssl/core_dispatch.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <climits>
#include <cstring>

namespace {

// The fetched algorithms and the contexts are made once and reused, so a
// transmission allocates nothing; the key schedule itself is set up anew at
// every call, so a new key takes effect at once. Each direction has its own
// cipher context, and a context already set up for the wanted cipher is
// re-keyed without naming the cipher again: naming it makes libcrypto free
// and allocate the context's provider state, a heap call at every message.
//
// The digest has no such way round in libcrypto 3.0 and 3.1: every digest
// set-up, init or copy, frees and allocates the provider's state. So MD5 is
// run through the functions of the provider that EVP_MD_fetch chose, found
// once with OSSL_PROVIDER_query_operation, on one provider context made once
// and started afresh per message.
struct md5_direct {
    OSSL_FUNC_digest_init_fn *init = nullptr;
    OSSL_FUNC_digest_update_fn *update = nullptr;
    OSSL_FUNC_digest_final_fn *finish = nullptr;
    OSSL_FUNC_digest_freectx_fn *freectx = nullptr;
    void *ctx = nullptr;  // null: not usable, every digest fails
};

// Whether "MD5" is one of the colon-separated names of a provider's algorithm.
bool names_md5(const char *names) {
    for (const char *p = names; p != nullptr && *p != '\0'; p = std::strchr(p, ':')) {
        if (*p == ':') ++p;
        if (std::strncmp(p, "MD5", 3) == 0 && (p[3] == ':' || p[3] == '\0')) return true;
    }
    return false;
}

md5_direct open_md5(const EVP_MD *md) {
    md5_direct d;
    const OSSL_PROVIDER *prov = md ? EVP_MD_get0_provider(md) : nullptr;
    if (prov == nullptr) return d;
    int no_store = 0;
    const OSSL_ALGORITHM *algs = OSSL_PROVIDER_query_operation(prov, OSSL_OP_DIGEST, &no_store);
    OSSL_FUNC_digest_newctx_fn *newctx = nullptr;
    for (const OSSL_ALGORITHM *a = algs; a != nullptr && a->algorithm_names != nullptr; ++a) {
        if (!names_md5(a->algorithm_names)) continue;
        for (const OSSL_DISPATCH *f = a->implementation; f->function_id != 0; ++f) {
            switch (f->function_id) {
            case OSSL_FUNC_DIGEST_NEWCTX: newctx = OSSL_FUNC_digest_newctx(f); break;
            case OSSL_FUNC_DIGEST_INIT: d.init = OSSL_FUNC_digest_init(f); break;
            case OSSL_FUNC_DIGEST_UPDATE: d.update = OSSL_FUNC_digest_update(f); break;
            case OSSL_FUNC_DIGEST_FINAL: d.finish = OSSL_FUNC_digest_final(f); break;
            case OSSL_FUNC_DIGEST_FREECTX: d.freectx = OSSL_FUNC_digest_freectx(f); break;
            default: break;
            }
        }
        break;
    }
    OSSL_PROVIDER_unquery_operation(prov, OSSL_OP_DIGEST, algs);
    // The provider stays loaded while the fetched digest holds it, so its functions stay valid.
    if (newctx && d.init && d.update && d.finish && d.freectx) d.ctx = newctx(OSSL_PROVIDER_get0_provider_ctx(prov));
    return d;
}

struct evp_state {
    EVP_CIPHER *aes[3] = {};
    EVP_CIPHER_CTX *cctx[2] = {};           // [1] encrypts, [0] decrypts
    const EVP_CIPHER *cctx_cipher[2] = {};  // the cipher each was last set up with
    EVP_MD *md5 = nullptr;
    md5_direct mctx;

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
        mctx = open_md5(md5);
    }
    ~evp_state() {
        EVP_CIPHER_CTX_free(cctx[0]);
        EVP_CIPHER_CTX_free(cctx[1]);
        if (mctx.ctx != nullptr) mctx.freectx(mctx.ctx);
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
    const md5_direct &m = evp().mctx;
    std::size_t n = 0;
    if (m.ctx != nullptr && m.init(m.ctx, nullptr) == 1 && m.update(m.ctx, in, len) == 1 &&
        m.finish(m.ctx, out, &n, TOVRIN_MD5_LEN) == 1 && n == TOVRIN_MD5_LEN)
        return true;
    std::memset(out, 0, TOVRIN_MD5_LEN);
    return false;
}
