#pragma once
// Turning what the daemon sends back into the lines tovrinctl prints.
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "relay/app_msg.h"

namespace tovrinctl {

// "A.B.C.D" from 4 bytes in network order (first octet first).
std::string format_ipv4(std::span<const uint8_t, 4> addr);

// Answer to request 120: "controller A.B.C.D link UP|DOWN"; nullopt when
// shorter than the 8 bytes of address and status.
std::optional<std::string> format_status(std::span<const uint8_t> payload);

// Answer to request 28: the six configuration words; nullopt under 24 bytes.
std::optional<std::array<int32_t, 6>> decode_log_conf(std::span<const uint8_t> payload);
// "level N echo N max N"
std::string format_log_conf(const std::array<int32_t, 6> &words);

// Any response: "type=T flags=0xFFFFFFFF len=N payload=HEX".
std::string format_response(uint32_t type, uint32_t flags, std::span<const uint8_t> payload);

// The application header at the start of a type-123 payload; nullopt when short.
std::optional<tovrin_app_msg_t> decode_app_header(std::span<const uint8_t> payload);

// Data as text when every byte is printable ASCII, else as hex.
std::string printable_or_hex(std::span<const uint8_t> data);

// One line for a message arriving at a local endpoint:
//   STATUS UP|DOWN controller A.B.C.D id N
//   MSG id=N src=S dst=D len=N data=TEXT|HEX
//   ANSWER id=N dst=D len=N flags=0xFFFFFFFF OK|FAILED
//   RAW type=T flags=0xFFFFFFFF len=N payload=HEX   (not an application message)
std::string format_endpoint_msg(uint32_t type, uint32_t env_flags, std::span<const uint8_t> payload);

}  // namespace tovrinctl
