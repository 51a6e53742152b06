#pragma once
// Expected bytes of host-order formats (IPC payloads, the log library's own
// form of its configuration): a test states the words, and holds on little-
// and big-endian hosts alike.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace host_order {

// The four bytes of v in this host's order.
inline std::vector<uint8_t> b32(uint32_t v) {
    std::vector<uint8_t> b(4);
    std::memcpy(b.data(), &v, 4);
    return b;
}

// The same bytes as lower-case hex.
inline std::string h32(uint32_t v) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t byte : b32(v)) {
        s += digits[byte >> 4];
        s += digits[byte & 0xf];
    }
    return s;
}

}  // namespace host_order
