// The mbedTLS backend of link/cipher.h, the one a device build links: access
// point images carry mbedTLS already. Builds with mbedTLS 2.28 (Debian 12) and
// 3.6 on the generic message-digest and cipher layers (mbedtls_md_*,
// mbedtls_cipher_*), whose calls are the same in both, and with 4.x on the PSA
// crypto API, since 4.0 keeps no other crypto interface public. The PSA path
// can be chosen on 2.28 and 3.x too (-DTOVRIN_MBEDTLS_PSA=ON), but is not the
// default there: psa_crypto_init seeds a random generator the daemon never
// uses, from the kernel's entropy, which may block early at boot. Both paths
// are built and tested with 2.28; 3.6 and 4.x are written for from their
// interfaces.
#include "link/cipher.h"

#include <mbedtls/version.h>

#include <cstring>

#if MBEDTLS_VERSION_NUMBER >= 0x04000000 || defined(TOVRIN_MBEDTLS_PSA)
#define TOVRIN_USE_PSA 1
#include <psa/crypto.h>
#else
#include <mbedtls/cipher.h>
#include <mbedtls/md.h>
#endif

namespace {

bool key_len_ok(std::size_t keylen) { return keylen == 16 || keylen == 24 || keylen == 32; }

#ifdef TOVRIN_USE_PSA

// The key is imported once and kept until another key is asked for, so a
// message costs no key-store call; the bytes are compared at every call, so
// a new key takes effect at once.
struct psa_state {
    bool ready = false;
    bool failed = false;
    mbedtls_svc_key_id_t key = MBEDTLS_SVC_KEY_ID_INIT;
    std::size_t keylen = 0;
    uint8_t bytes[32] = {};

    ~psa_state() { psa_destroy_key(key); }
    bool init() {
        if (!ready && !failed) {
            ready = psa_crypto_init() == PSA_SUCCESS;
            failed = !ready;
        }
        return ready;
    }
};

psa_state &lib() {
    static psa_state s;
    return s;
}

bool key_for(psa_state &st, const uint8_t *key, std::size_t keylen) {
    if (st.keylen == keylen && std::memcmp(st.bytes, key, keylen) == 0) return true;
    psa_destroy_key(st.key);
    st.key = MBEDTLS_SVC_KEY_ID_INIT;
    st.keylen = 0;
    psa_key_attributes_t attr = PSA_KEY_ATTRIBUTES_INIT;
    psa_set_key_type(&attr, PSA_KEY_TYPE_AES);
    psa_set_key_bits(&attr, keylen * 8);
    psa_set_key_usage_flags(&attr, PSA_KEY_USAGE_ENCRYPT | PSA_KEY_USAGE_DECRYPT);
    psa_set_key_algorithm(&attr, PSA_ALG_CBC_NO_PADDING);
    if (psa_import_key(&attr, key, keylen, &st.key) != PSA_SUCCESS) return false;
    std::memcpy(st.bytes, key, keylen);
    st.keylen = keylen;
    return true;
}

}  // namespace

bool tovrin_aes_cbc(bool encrypt, const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key,
                    std::size_t keylen, const uint8_t iv[TOVRIN_IV_LEN]) {
    if (!key_len_ok(keylen) || len % TOVRIN_AES_BLOCK != 0) return false;
    psa_state &st = lib();
    if (!st.init() || !key_for(st, key, keylen)) return false;
    psa_cipher_operation_t op = PSA_CIPHER_OPERATION_INIT;
    psa_status_t s = encrypt ? psa_cipher_encrypt_setup(&op, st.key, PSA_ALG_CBC_NO_PADDING)
                             : psa_cipher_decrypt_setup(&op, st.key, PSA_ALG_CBC_NO_PADDING);
    std::size_t n = 0, fin = 0;
    if (s == PSA_SUCCESS) s = psa_cipher_set_iv(&op, iv, TOVRIN_IV_LEN);
    if (s == PSA_SUCCESS) s = psa_cipher_update(&op, in, len, out, len, &n);
    if (s == PSA_SUCCESS) s = psa_cipher_finish(&op, out + n, len - n, &fin);
    if (s != PSA_SUCCESS) {
        psa_cipher_abort(&op);
        return false;
    }
    return n + fin == len;
}

bool tovrin_md5(const uint8_t *in, std::size_t len, uint8_t out[TOVRIN_MD5_LEN]) {
    std::size_t n = 0;
    if (lib().init() && psa_hash_compute(PSA_ALG_MD5, in, len, out, TOVRIN_MD5_LEN, &n) == PSA_SUCCESS &&
        n == TOVRIN_MD5_LEN)
        return true;
    std::memset(out, 0, TOVRIN_MD5_LEN);
    return false;
}

#else  // the generic layers

// The contexts are set up once (a heap block each inside mbedTLS) and reused,
// so a message allocates nothing; the cipher context is set up again only when
// the key length changes. The key schedule is made anew at every call, for the
// direction asked, so one cipher context serves both and a new key takes
// effect at once.
struct generic_state {
    mbedtls_cipher_context_t cctx;
    std::size_t cctx_keylen = 0;  // the key length it was set up for; 0: not set up
    mbedtls_md_context_t mctx;
    bool md_ready = false;

    generic_state() {
        mbedtls_cipher_init(&cctx);
        mbedtls_md_init(&mctx);
        const mbedtls_md_info_t *md5 = mbedtls_md_info_from_type(MBEDTLS_MD_MD5);
        md_ready = md5 != nullptr && mbedtls_md_setup(&mctx, md5, 0) == 0;
    }
    ~generic_state() {
        mbedtls_cipher_free(&cctx);
        mbedtls_md_free(&mctx);
    }
    generic_state(const generic_state &) = delete;
    generic_state &operator=(const generic_state &) = delete;
};

generic_state &lib() {
    static generic_state s;
    return s;
}

mbedtls_cipher_type_t aes_for(std::size_t keylen) {
    return keylen == 16   ? MBEDTLS_CIPHER_AES_128_CBC
           : keylen == 24 ? MBEDTLS_CIPHER_AES_192_CBC
                          : MBEDTLS_CIPHER_AES_256_CBC;
}

}  // namespace

bool tovrin_aes_cbc(bool encrypt, const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key,
                    std::size_t keylen, const uint8_t iv[TOVRIN_IV_LEN]) {
    if (!key_len_ok(keylen) || len % TOVRIN_AES_BLOCK != 0) return false;
    generic_state &st = lib();
    mbedtls_cipher_context_t *ctx = &st.cctx;
    if (st.cctx_keylen != keylen) {
        mbedtls_cipher_free(ctx);
        mbedtls_cipher_init(ctx);
        st.cctx_keylen = 0;  // set again only once the set-up succeeded
        const mbedtls_cipher_info_t *info = mbedtls_cipher_info_from_type(aes_for(keylen));
        if (info == nullptr || mbedtls_cipher_setup(ctx, info) != 0 ||
            mbedtls_cipher_set_padding_mode(ctx, MBEDTLS_PADDING_NONE) != 0)
            return false;
        st.cctx_keylen = keylen;
    }
    if (mbedtls_cipher_setkey(ctx, key, static_cast<int>(keylen * 8), encrypt ? MBEDTLS_ENCRYPT : MBEDTLS_DECRYPT) != 0)
        return false;
    std::size_t n = 0;
    return mbedtls_cipher_crypt(ctx, iv, TOVRIN_IV_LEN, in, len, out, &n) == 0 && n == len;
}

bool tovrin_md5(const uint8_t *in, std::size_t len, uint8_t out[TOVRIN_MD5_LEN]) {
    generic_state &st = lib();
    if (st.md_ready && mbedtls_md_starts(&st.mctx) == 0 && mbedtls_md_update(&st.mctx, in, len) == 0 &&
        mbedtls_md_finish(&st.mctx, out) == 0)
        return true;
    std::memset(out, 0, TOVRIN_MD5_LEN);
    return false;
}

#endif
