#include "tools/tovrinctl/decode.h"

#include <cstdio>
#include <cstring>

namespace tovrinctl {

namespace {

template <typename T>
T get(const uint8_t *at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

void print_raw(const char *prefix, uint32_t type, uint32_t flags, std::span<const uint8_t> payload) {
    std::printf("%stype=%u flags=0x%08x len=%zu payload=", prefix, type, flags, payload.size());
    print_hex(payload);
    std::putchar('\n');
}

}  // namespace

ipv4_text_t format_ipv4(const uint8_t *addr) {
    ipv4_text_t t;
    std::snprintf(t.s, sizeof t.s, "%u.%u.%u.%u", addr[0], addr[1], addr[2], addr[3]);
    return t;
}

void print_hex(std::span<const uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    char buf[256];
    std::size_t n = 0;
    for (uint8_t b : bytes) {
        buf[n++] = digits[b >> 4];
        buf[n++] = digits[b & 0xf];
        if (n == sizeof buf) std::fwrite(buf, 1, n, stdout), n = 0;
    }
    std::fwrite(buf, 1, n, stdout);
}

bool print_status(std::span<const uint8_t> payload, bool json) {
    if (payload.size() < 8) return false;
    const bool up = get<int32_t>(payload.data() + 4) == 1;
    const ipv4_text_t addr = format_ipv4(payload.data());
    if (json) std::printf("{\"controller\":\"%s\",\"link_state\":\"%s\"}\n", addr.s, up ? "up" : "down");
    else std::printf("controller %s link %s\n", addr.s, up ? "UP" : "DOWN");
    return true;
}

std::optional<std::array<int32_t, 6>> decode_log_conf(std::span<const uint8_t> payload) {
    std::array<int32_t, 6> words{};
    if (payload.size() < 4 * words.size()) return std::nullopt;
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = get<int32_t>(payload.data() + 4 * i);
    return words;
}

void print_log_conf(const std::array<int32_t, 6> &words) {
    std::printf("level %d echo %d max %u\n", int(words[2]), int(words[3]), unsigned(uint32_t(words[5])));
}

void print_response(uint32_t type, uint32_t flags, std::span<const uint8_t> payload) {
    print_raw("", type, flags, payload);
}

std::optional<tovrin_app_msg_t> decode_app_header(std::span<const uint8_t> payload) {
    if (payload.size() < TOVRIN_APP_HDR_LEN) return std::nullopt;
    tovrin_app_msg_t h;
    std::memcpy(&h, payload.data(), TOVRIN_APP_HDR_LEN);
    return h;
}

void print_endpoint_msg(uint32_t type, uint32_t env_flags, std::span<const uint8_t> payload) {
    const auto h = decode_app_header(payload);
    if (type != TOVRIN_IPC_APP_MSG || !h) return print_raw("RAW ", type, env_flags, payload);
    // Show what actually arrived, up to the length the header claims.
    std::span<const uint8_t> data = payload.subspan(TOVRIN_APP_HDR_LEN);
    if (data.size() > h->len) data = data.first(h->len);

    if (h->flags & TOVRIN_MSG_F_STATUS) {
        if (data.size() < 8) return print_raw("RAW ", type, env_flags, payload);
        const bool up = get<int32_t>(data.data() + 4) == 1;
        std::printf("STATUS %s controller %s id %u\n", up ? "UP" : "DOWN", format_ipv4(data.data()).s, h->id);
    } else if (h->flags & TOVRIN_MSG_F_FROM_CTRL) {
        std::printf("MSG id=%u src=%d dst=%d len=%u data=", h->id, int(h->src_ep), int(h->dst_ep), h->len);
        bool text = true;
        for (uint8_t b : data) text = text && b >= 0x20 && b <= 0x7e;
        if (text) std::fwrite(data.data(), 1, data.size(), stdout);
        else print_hex(data);
        std::putchar('\n');
    } else {
        std::printf("ANSWER id=%u dst=%d len=%u flags=0x%08x %s\n", h->id, int(h->dst_ep), h->len, h->flags,
                    (h->flags & TOVRIN_MSG_F_FAILED) ? "FAILED" : "OK");
    }
}

}  // namespace tovrinctl
