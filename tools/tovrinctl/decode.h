#pragma once
// Printing what the daemon sends back, one line each on standard output.
#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "relay/app_msg.h"

namespace tovrinctl {

// "A.B.C.D" from 4 bytes in network order (first octet first).
struct ipv4_text_t {
    char s[16];
};
ipv4_text_t format_ipv4(const uint8_t *addr);

// Lower-case hex, two digits per byte, no separators.
void print_hex(std::span<const uint8_t> bytes);

// Answer to request 120: "controller A.B.C.D link UP|DOWN", or as JSON
// {"controller":"A.B.C.D","link_state":"up"|"down"}; false (nothing printed)
// when shorter than the 8 bytes of address and status.
bool print_status(std::span<const uint8_t> payload, bool json);

// Answer to request 28: the six configuration words; nullopt under 24 bytes.
std::optional<std::array<int32_t, 6>> decode_log_conf(std::span<const uint8_t> payload);
// "level N echo N max N"
void print_log_conf(const std::array<int32_t, 6> &words);

// Any response: "type=T flags=0xFFFFFFFF len=N payload=HEX".
void print_response(uint32_t type, uint32_t flags, std::span<const uint8_t> payload);

// The application header at the start of a type-123 payload; nullopt when short.
std::optional<tovrin_app_msg_t> decode_app_header(std::span<const uint8_t> payload);

// One line for a message arriving at a local endpoint:
//   STATUS UP|DOWN controller A.B.C.D id N
//   MSG id=N src=S dst=D len=N data=TEXT|HEX   (text when every byte is printable ASCII)
//   ANSWER id=N dst=D len=N flags=0xFFFFFFFF OK|FAILED
//   RAW type=T flags=0xFFFFFFFF len=N payload=HEX   (not an application message)
void print_endpoint_msg(uint32_t type, uint32_t env_flags, std::span<const uint8_t> payload);

}  // namespace tovrinctl
