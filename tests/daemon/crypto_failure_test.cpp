// The crypto library failing under the daemon: the backend's digest call is
// interposed here (this executable's definition wins over the shared
// library's), so a digest that fails is seen, never compared or sent from a
// stale buffer. TOVRIN_TEST_MBEDTLS says which backend this program links.
#include <dlfcn.h>

#include "core/ipc_codes.h"
#include "ipc_payloads.h"
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
#include <openssl/evp.h>

extern "C" int EVP_DigestFinal_ex(EVP_MD_CTX *ctx, unsigned char *md, unsigned int *s) {
    static const auto fn = real<int (*)(EVP_MD_CTX *, unsigned char *, unsigned int *)>("EVP_DigestFinal_ex");
    return fail_digest ? 0 : fn(ctx, md, s);
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
