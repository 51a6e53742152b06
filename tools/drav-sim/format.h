#pragma once
// Text forms of what drav-sim prints: header fields, identities, message data,
// addresses. Every value is one whitespace-free token, except message data,
// which ends its line.
#include <netinet/in.h>

#include <cstdint>
#include <span>
#include <string>

#include "link/wire.h"
#include "tools/drav-sim/codec.h"

// Message data printed before the cut.
inline constexpr std::size_t DSIM_DATA_SHOWN = 64;

// "flags=0x24 frag=0 ctlr_trans=3 ap_trans=0 data_len=1024"
std::string dsim_fmt_hdr(const tovrin_hdr_t &h);
// Bytes up to the first NUL; printable ASCII as is, the rest (space, '\\',
// '"' included) as \xNN.
std::string dsim_fmt_cstr(std::span<const uint8_t> b);
// "aa:bb:cc:dd:ee:ff"
std::string dsim_fmt_mac(std::span<const uint8_t, 6> m);
// REG-REQ / KA-REQ with their fields.
std::string dsim_fmt_req(const dsim_ap_req &r);
// Message data: "text" (\\ \" \n \r \t escaped) when every byte is printable or
// one of those, else hex:0011...; the first 64 bytes, then ... when cut.
std::string dsim_fmt_data(std::span<const uint8_t> b);
// "10.0.0.2:6650"
std::string dsim_fmt_addr(const sockaddr_in &a);
// Parses an even-length hex string; false on anything else.
bool dsim_parse_hex(const std::string &s, dsim_bytes &out);
