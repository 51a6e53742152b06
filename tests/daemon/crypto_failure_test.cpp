// The crypto library failing under the daemon: the backend's digest call is
// interposed here (this executable's definition wins over the shared
// library's), so a digest that fails is seen, never compared or sent from a
// stale buffer. TOVRIN_TEST_MBEDTLS says which backend this program links.
#include <dlfcn.h>

#include "core/ipc_codes.h"
#include "world.h"

namespace {

bool fail_digest = false;

template <typename Fn>
Fn real(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Each failure leaves the output as it was, as a failing library may.
#if TOVRIN_TEST_MBEDTLS
#include <mbedtls/md.h>
#include <psa/crypto.h>

extern "C" int mbedtls_md_finish(mbedtls_md_context_t *ctx, unsigned char *out) {
    static const auto fn = real<int (*)(mbedtls_md_context_t *, unsigned char *)>("mbedtls_md_finish");
    return fail_digest ? MBEDTLS_ERR_MD_BAD_INPUT_DATA : fn(ctx, out);
}
extern "C" psa_status_t psa_hash_compute(psa_algorithm_t alg, const uint8_t *in, size_t len, uint8_t *out, size_t size,
                                         size_t *n) {
    using fn_t = psa_status_t (*)(psa_algorithm_t, const uint8_t *, size_t, uint8_t *, size_t, size_t *);
    static const auto fn = real<fn_t>("psa_hash_compute");
    return fail_digest ? PSA_ERROR_HARDWARE_FAILURE : fn(alg, in, len, out, size, n);
}
#else
#include <openssl/core_dispatch.h>
#include <openssl/provider.h>

#include <cstring>

// The backend calls MD5's final step as the provider's table gives it: the
// table handed out here is the provider's, that step passing through final_or_fail.
OSSL_FUNC_digest_final_fn *md5_final = nullptr;
int final_or_fail(void *ctx, unsigned char *out, size_t *n, size_t size) {
    return fail_digest ? 0 : md5_final(ctx, out, n, size);
}
extern "C" const OSSL_ALGORITHM *OSSL_PROVIDER_query_operation(const OSSL_PROVIDER *prov, int op, int *no_store) {
    static const auto fn = real<const OSSL_ALGORITHM *(*)(const OSSL_PROVIDER *, int, int *)>(__func__);
    static OSSL_ALGORITHM algs[64];
    static OSSL_DISPATCH md5[32];
    const OSSL_ALGORITHM *got = fn(prov, op, no_store);
    if (op != OSSL_OP_DIGEST || got == nullptr) return got;
    std::size_t i = 0, j = 0;
    for (; got[i].algorithm_names != nullptr && i + 1 < std::size(algs); ++i) {
        algs[i] = got[i];
        if (std::strncmp(got[i].algorithm_names, "MD5:", 4) != 0) continue;
        for (j = 0; got[i].implementation[j].function_id != 0 && j + 1 < std::size(md5); ++j) {
            md5[j] = got[i].implementation[j];
            if (md5[j].function_id != OSSL_FUNC_DIGEST_FINAL) continue;
            md5_final = OSSL_FUNC_digest_final(&md5[j]);
            md5[j].function = reinterpret_cast<void (*)()>(final_or_fail);
        }
        md5[j] = {};
        algs[i].implementation = md5;
    }
    algs[i] = {};
    return algs;
}
#endif

namespace {

const std::vector<uint8_t> kKey16 = unhex("000102030405060708090a0b0c0d0e0f");

class CryptoFailure : public World {
protected:
    void TearDown() override {
        fail_digest = false;
        World::TearDown();
    }
};

TEST_F(CryptoFailure, AFailedDigestIsNeitherComparedNorSent) {
    bring_up();
    set_key(kKey16);
    const auto iv = unhex("0f0e0d0c0b0a09080706050403020100");
    const auto good = enc_payload(9, 101, {1, 2, 3, 4, 5, 6, 7, 8}, kKey16, iv);

    // Received: acknowledged as every complete message is, then dropped unread.
    fail_digest = true;
    clear_captures();
    std::size_t mark = log_mark();
    from_ctrl(frame(0x24, 0, 7, 0, good));
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_TRUE(app_msgs().empty());
    EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_recv_data: Malformed encrypted msg 7 (digest could not be computed) "
                                   "from 198.18.0.1\n"),
              std::string::npos)
        << log_since(mark);
    // The same message once the library works again is delivered.
    fail_digest = false;
    from_ctrl(frame(0x24, 0, 8, 0, good));
    EXPECT_EQ(app_msgs().size(), 1u);

    // Sent: nothing goes out with a digest that was not computed.
    notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(1));
    fail_digest = true;
    clear_captures();
    mark = log_mark();
    app_send(101, 5, 0, {1, 2, 3});
    EXPECT_TRUE(data_sent().empty());
    EXPECT_NE(log_since(mark).find("NOTE: Digest of outgoing msg failed\n"), std::string::npos);
}

}  // namespace
