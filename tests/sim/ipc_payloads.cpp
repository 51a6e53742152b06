#include "ipc_payloads.h"

#include <cstring>

namespace {
std::vector<uint8_t> bytes_of(const void *v, std::size_t n) {
    const auto *b = static_cast<const uint8_t *>(v);
    return {b, b + n};
}
}  // namespace

tovrin_app_msg_t app_header(int32_t src, const char *name, uint32_t id, uint32_t flags, int32_t dst, std::size_t len) {
    tovrin_app_msg_t h{};
    h.src_ep = src;
    std::strncpy(h.src_name, name, sizeof h.src_name - 1);
    h.id = id;
    h.flags = flags;
    h.dst_ep = dst;
    h.len = static_cast<uint32_t>(len);
    return h;
}

std::vector<uint8_t> app_payload(const tovrin_app_msg_t &h, const std::vector<uint8_t> &data) {
    std::vector<uint8_t> p = bytes_of(&h, TOVRIN_APP_HDR_LEN);
    p.insert(p.end(), data.begin(), data.end());
    return p;
}

std::vector<uint8_t> word_payload(uint32_t v) { return bytes_of(&v, sizeof v); }

std::vector<uint8_t> key_payload(const std::vector<uint8_t> &key) {
    std::vector<uint8_t> p = word_payload(static_cast<uint32_t>(key.size()));
    p.insert(p.end(), key.begin(), key.end());
    return p;
}
