#pragma once
// Payloads of the commands tovrinctl sends, host byte order except where an
// IPv4 address is carried (network order, as the daemon keeps it). Each is
// written into the caller's buffer and returned as the part written.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace tovrinctl {

// The byte count of an even count of hex digits with an optional "0x"
// prefix; nullopt on anything else.
std::optional<std::size_t> hex_length(std::string_view text);
// The bytes of text, which hex_length accepted, into out (hex_length of them).
void decode_hex(std::string_view text, uint8_t *out);

// Notification 180: 32-bit length, then the key bytes; out holds 4 more than the key.
std::span<const uint8_t> encode_key(std::span<const uint8_t> key, std::span<uint8_t> out);
// Notification 181: the signed 32-bit state.
std::array<uint8_t, 4> encode_encrypt(int32_t state);
// Notification 149: dotted IPv4 text -> the 4 address bytes, first octet first.
std::optional<std::array<uint8_t, 4>> encode_controller(std::string_view dotted);
// Notification 121: signed application id, unsigned rate.
std::array<uint8_t, 8> encode_karate(int32_t app_id, uint32_t rate);
// Notification 29 and the answer to request 28: the six configuration words.
std::array<uint8_t, 24> encode_log_conf(const std::array<int32_t, 6> &words);

struct app_fields_t {
    int32_t src_ep = 0;
    std::string_view src_name;  // at most 63 bytes; the rest of the field is zero
    uint32_t id = 0;
    uint32_t flags = 0;
    int32_t dst_ep = 0;
};
// Notification 122: the 84-byte application header (len = data size) and the
// data. nullopt when the data would not fit out or one IPC message, or the
// name its field.
std::optional<std::span<const uint8_t>> encode_app_msg(const app_fields_t &f, std::span<const uint8_t> data,
                                                       std::span<uint8_t> out);

}  // namespace tovrinctl
