// libcrypto failing under the daemon (its digest call interposed here): a digest
// that fails is seen, never compared or sent from a stale buffer.
#include <dlfcn.h>
#include <openssl/evp.h>

#include "core/ipc_codes.h"
#include "ipc_payloads.h"
#include "world.h"

static bool fail_digest = false;

extern "C" int EVP_DigestFinal_ex(EVP_MD_CTX *ctx, unsigned char *md, unsigned int *s) {
    using fn_t = int (*)(EVP_MD_CTX *, unsigned char *, unsigned int *);
    static const auto real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "EVP_DigestFinal_ex"));
    if (fail_digest) return 0;  // leaves md as it was, as a failing libcrypto may
    return real(ctx, md, s);
}

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
    // The same message once libcrypto works again is delivered.
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
