// bench-crypto: the daemon's own payload protection on a 16 KB payload (the
// 48-byte inner header and 16336 bytes of data), timed per call:
//   protect: MD5 of the data, then AES-128-CBC encryption (tovrin_protect_payload)
//   open:    AES-128-CBC decryption, then MD5 and its check (tovrin_open_payload)
// and the two primitives alone. Prints "CRYPTO op=.. bytes=.. ns=.." (median of --reps).
// --hold: then prints "HOLDING" and waits to be killed, the crypto library
// still mapped and used: bench/footprint measures the daemon beside it, as on
// a device where other programs use the same library.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/bench_common.h"
#include "link/cipher.h"
#include "link/protect.h"
#include "link/record.h"

namespace {

template <class F>
double median_ns(long iters, int reps, F &&f) {
    std::vector<double> r;
    for (int k = 0; k < reps; ++k) {
        uint64_t t0 = bench_now_ns();
        for (long i = 0; i < iters; ++i) f();
        r.push_back(double(bench_now_ns() - t0) / double(iters));
    }
    std::sort(r.begin(), r.end());
    return r[r.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    bench_args a(argc, argv, 1);
    long iters = a.num("--iters", 4000);
    int reps = int(a.num("--reps", 5));
    const std::size_t len = TOVRIN_MAX_PAYLOAD;
    const std::size_t body = len - TOVRIN_ENC_HDR_LEN;
    static const uint8_t key[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                    0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
    std::memcpy(tovrin_gbl.key, key, sizeof key);
    tovrin_gbl.keylen = sizeof key;
    std::vector<uint8_t> payload(len), wire(len), plain(len);
    for (std::size_t i = 0; i < len; ++i) payload[i] = uint8_t(i * 13);
    payload[TOVRIN_DOFF_TYPE] = TOVRIN_DATA_ENC;
    tovrin_store32(&payload[TOVRIN_DOFF_PAD], 0);
    if (!tovrin_protect_payload(payload.data(), len, wire.data())) {
        std::fprintf(stderr, "bench-crypto: protect failed\n");
        return 1;
    }
    std::size_t n = 0;
    const char *why = nullptr;
    if (!tovrin_open_payload(wire.data(), len, plain.data(), &n, &why) || n != body ||
        std::memcmp(plain.data(), payload.data() + TOVRIN_ENC_HDR_LEN, body) != 0) {
        std::fprintf(stderr, "bench-crypto: the protected payload does not open to its data\n");
        return 1;
    }
    bool ok = true;
    double protect = median_ns(iters, reps, [&] { ok &= tovrin_protect_payload(payload.data(), len, wire.data()); });
    double open = median_ns(iters, reps, [&] { ok &= tovrin_open_payload(wire.data(), len, plain.data(), &n, &why); });
    uint8_t digest[TOVRIN_MD5_LEN];
    double md5 = median_ns(iters, reps, [&] { tovrin_md5(payload.data() + TOVRIN_ENC_HDR_LEN, body, digest); });
    double enc = median_ns(iters, reps, [&] {
        ok &= tovrin_aes_cbc(true, payload.data() + TOVRIN_ENC_HDR_LEN, wire.data() + TOVRIN_ENC_HDR_LEN, body, key, 16,
                             &payload[TOVRIN_DOFF_IV]);
    });
    double dec = median_ns(iters, reps, [&] {
        ok &= tovrin_aes_cbc(false, wire.data() + TOVRIN_ENC_HDR_LEN, plain.data(), body, key, 16,
                             &payload[TOVRIN_DOFF_IV]);
    });
    if (!ok) {
        std::fprintf(stderr, "bench-crypto: a call failed\n");
        return 1;
    }
    std::printf("CRYPTO op=protect bytes=%zu ns=%.0f\n", body, protect);
    std::printf("CRYPTO op=open bytes=%zu ns=%.0f\n", body, open);
    std::printf("CRYPTO op=md5 bytes=%zu ns=%.0f\n", body, md5);
    std::printf("CRYPTO op=aes_enc bytes=%zu ns=%.0f\n", body, enc);
    std::printf("CRYPTO op=aes_dec bytes=%zu ns=%.0f\n", body, dec);
    if (a.flag("--hold")) {
        std::printf("HOLDING\n");
        std::fflush(stdout);
        for (;;) pause();
    }
    return 0;
}
