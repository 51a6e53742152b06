#include "tools/tovrinctl/decode.h"

#include <cstdio>
#include <cstring>

#include "tools/tovrinctl/encode.h"

namespace tovrinctl {

namespace {

std::string hex32(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08x", v);
    return buf;
}

template <typename T>
T get(const uint8_t *at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

}  // namespace

std::string format_ipv4(std::span<const uint8_t, 4> addr) {
    return std::to_string(addr[0]) + "." + std::to_string(addr[1]) + "." + std::to_string(addr[2]) + "." +
           std::to_string(addr[3]);
}

std::optional<std::string> format_status(std::span<const uint8_t> payload) {
    if (payload.size() < 8) return std::nullopt;
    const int32_t status = get<int32_t>(payload.data() + 4);
    return "controller " + format_ipv4(payload.first<4>()) + " link " + (status == 1 ? "UP" : "DOWN");
}

std::optional<std::array<int32_t, 6>> decode_log_conf(std::span<const uint8_t> payload) {
    std::array<int32_t, 6> words{};
    if (payload.size() < 4 * words.size()) return std::nullopt;
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = get<int32_t>(payload.data() + 4 * i);
    return words;
}

std::string format_log_conf(const std::array<int32_t, 6> &words) {
    return "level " + std::to_string(words[2]) + " echo " + std::to_string(words[3]) + " max " +
           std::to_string(static_cast<uint32_t>(words[5]));
}

std::string format_response(uint32_t type, uint32_t flags, std::span<const uint8_t> payload) {
    return "type=" + std::to_string(type) + " flags=" + hex32(flags) + " len=" + std::to_string(payload.size()) +
           " payload=" + to_hex(payload);
}

std::optional<tovrin_app_msg_t> decode_app_header(std::span<const uint8_t> payload) {
    if (payload.size() < TOVRIN_APP_HDR_LEN) return std::nullopt;
    tovrin_app_msg_t h;
    std::memcpy(&h, payload.data(), TOVRIN_APP_HDR_LEN);
    return h;
}

std::string printable_or_hex(std::span<const uint8_t> data) {
    for (uint8_t b : data)
        if (b < 0x20 || b > 0x7e) return to_hex(data);
    return std::string(data.begin(), data.end());
}

std::string format_endpoint_msg(uint32_t type, uint32_t env_flags, std::span<const uint8_t> payload) {
    auto raw = [&] {
        return "RAW type=" + std::to_string(type) + " flags=" + hex32(env_flags) +
               " len=" + std::to_string(payload.size()) + " payload=" + to_hex(payload);
    };
    auto h = decode_app_header(payload);
    if (type != TOVRIN_IPC_APP_MSG || !h) return raw();
    // Show what actually arrived, up to the length the header claims.
    std::span<const uint8_t> data = payload.subspan(TOVRIN_APP_HDR_LEN);
    if (data.size() > h->len) data = data.first(h->len);

    if (h->flags & TOVRIN_MSG_F_STATUS) {
        if (data.size() < 8) return raw();
        const int32_t status = get<int32_t>(data.data() + 4);
        return std::string("STATUS ") + (status == 1 ? "UP" : "DOWN") + " controller " + format_ipv4(data.first<4>()) +
               " id " + std::to_string(h->id);
    }
    if (h->flags & TOVRIN_MSG_F_FROM_CTRL)
        return "MSG id=" + std::to_string(h->id) + " src=" + std::to_string(h->src_ep) +
               " dst=" + std::to_string(h->dst_ep) + " len=" + std::to_string(h->len) +
               " data=" + printable_or_hex(data);
    return "ANSWER id=" + std::to_string(h->id) + " dst=" + std::to_string(h->dst_ep) +
           " len=" + std::to_string(h->len) + " flags=" + hex32(h->flags) +
           ((h->flags & TOVRIN_MSG_F_FAILED) ? " FAILED" : " OK");
}

}  // namespace tovrinctl
