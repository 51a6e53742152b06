#include "tools/tovrinctl/encode.h"

#include <arpa/inet.h>

#include <cstring>

#include "relay/app_msg.h"

namespace tovrinctl {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string_view without_0x(std::string_view text) {
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
    return text;
}

template <typename T>
void put(uint8_t *at, T v) {
    std::memcpy(at, &v, sizeof v);
}

}  // namespace

std::optional<std::size_t> hex_length(std::string_view text) {
    text = without_0x(text);
    if (text.size() % 2 != 0) return std::nullopt;
    for (char c : text)
        if (hex_digit(c) < 0) return std::nullopt;
    return text.size() / 2;
}

void decode_hex(std::string_view text, uint8_t *out) {
    text = without_0x(text);
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        *out++ = static_cast<uint8_t>(hex_digit(text[i]) << 4 | hex_digit(text[i + 1]));
}

std::span<const uint8_t> encode_key(std::span<const uint8_t> key, std::span<uint8_t> out) {
    put(out.data(), static_cast<uint32_t>(key.size()));
    if (!key.empty()) std::memcpy(out.data() + 4, key.data(), key.size());
    return out.first(4 + key.size());
}

std::array<uint8_t, 4> encode_encrypt(int32_t state) {
    std::array<uint8_t, 4> out{};
    put(out.data(), state);
    return out;
}

std::optional<std::array<uint8_t, 4>> encode_controller(std::string_view dotted) {
    // inet_pton takes only the strict four-part decimal form: no "10.1", no hex parts.
    char text[16];
    if (dotted.size() >= sizeof text) return std::nullopt;
    std::memcpy(text, dotted.data(), dotted.size());
    text[dotted.size()] = '\0';
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) return std::nullopt;
    std::array<uint8_t, 4> out{};
    std::memcpy(out.data(), &a.s_addr, 4);
    return out;
}

std::array<uint8_t, 8> encode_karate(int32_t app_id, uint32_t rate) {
    std::array<uint8_t, 8> out{};
    put(out.data(), app_id);
    put(out.data() + 4, rate);
    return out;
}

std::array<uint8_t, 24> encode_log_conf(const std::array<int32_t, 6> &words) {
    std::array<uint8_t, 24> out{};
    for (std::size_t i = 0; i < words.size(); ++i) put(out.data() + 4 * i, words[i]);
    return out;
}

std::optional<std::span<const uint8_t>> encode_app_msg(const app_fields_t &f, std::span<const uint8_t> data,
                                                       std::span<uint8_t> out) {
    if (data.size() > TOVRIN_APP_MAX_DATA || f.src_name.size() >= TOVRIN_APP_NAME_LEN ||
        TOVRIN_APP_HDR_LEN + data.size() > out.size())
        return std::nullopt;
    tovrin_app_msg_t h{};
    h.src_ep = f.src_ep;
    std::memcpy(h.src_name, f.src_name.data(), f.src_name.size());
    h.id = f.id;
    h.flags = f.flags;
    h.dst_ep = f.dst_ep;
    h.len = static_cast<uint32_t>(data.size());
    std::memcpy(out.data(), &h, TOVRIN_APP_HDR_LEN);
    if (!data.empty()) std::memcpy(out.data() + TOVRIN_APP_HDR_LEN, data.data(), data.size());
    return out.first(TOVRIN_APP_HDR_LEN + data.size());
}

}  // namespace tovrinctl
