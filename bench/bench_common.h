#pragma once
// Small helpers shared by the load generators of bench/: the monotonic clock,
// option parsing, and the datagram sizes one application message costs on the link.
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "link/wire.h"

inline uint64_t bench_now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// Payload bytes the daemon puts on the link for data_len application bytes.
inline std::size_t bench_payload_len(std::size_t data_len, bool enc) {
    if (!enc) return data_len + TOVRIN_PLAIN_HDR_LEN;
    std::size_t n = data_len + TOVRIN_ENC_HDR_LEN;
    return (n + TOVRIN_AES_BLOCK - 1) / TOVRIN_AES_BLOCK * TOVRIN_AES_BLOCK;
}

// Datagram sizes (frame header included) of one message of data_len bytes:
// ceil(payload / 1024) datagrams, each 12 + its fragment.
inline std::vector<std::size_t> bench_dgram_sizes(std::size_t data_len, bool enc) {
    std::size_t left = bench_payload_len(data_len, enc);
    std::vector<std::size_t> out;
    do {
        std::size_t f = left > TOVRIN_FRAG_SIZE ? TOVRIN_FRAG_SIZE : left;
        out.push_back(TOVRIN_HDR_LEN + f);
        left -= f;
    } while (left > 0);
    return out;
}

// "--name value" options after the mode word; flags have no value.
struct bench_args {
    std::vector<std::string> v;
    bench_args(int argc, char **argv, int first) : v(argv + first, argv + argc) {}
    bool flag(const char *name) const {
        for (const auto &s : v)
            if (s == name) return true;
        return false;
    }
    std::string str(const char *name, const char *def) const {
        for (std::size_t i = 0; i + 1 < v.size(); ++i)
            if (v[i] == name) return v[i + 1];
        return def;
    }
    long num(const char *name, long def) const {
        std::string s = str(name, "");
        return s.empty() ? def : std::strtol(s.c_str(), nullptr, 0);
    }
};

// Parses hex text into bytes; false on odd length or a non-hex digit.
inline bool bench_hex(const std::string &hex, std::vector<uint8_t> &out) {
    out.clear();
    if (hex.size() % 2) return false;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        char b[3] = {hex[i], hex[i + 1], 0};
        char *end = nullptr;
        long v = std::strtol(b, &end, 16);
        if (*end) return false;
        out.push_back(uint8_t(v));
    }
    return true;
}
