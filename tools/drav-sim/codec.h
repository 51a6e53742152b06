#pragma once
// Frame checks and control packets of the controller side: what the AP's
// requests hold, and the datagrams the controller answers with.
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "link/wire.h"

using dsim_bytes = std::vector<uint8_t>;

// Frame flags of the controller's control packets. The AP only tests the
// control bit, so that is all these carry.
inline constexpr uint8_t DSIM_CTRL_FLAGS = TOVRIN_F_CTRL;
// Data fragments carry DATA|ACK_REQ, like the AP's own.
inline constexpr uint8_t DSIM_DATA_FLAGS = TOVRIN_F_DATA | TOVRIN_F_ACK_REQ;

// A received datagram that passed the frame checks; payload views the input.
struct dsim_frame {
    tovrin_hdr_t hdr{};
    std::span<const uint8_t> payload;
};

// Checks header, magic, version and lengths of a received datagram. Returns ""
// and fills out when it is well formed, else the reason. Reads only dgram.
std::string dsim_frame_check(std::span<const uint8_t> dgram, dsim_frame &out);

// The fields of a registration or keepalive request (keepalive: no name).
struct dsim_ap_req {
    uint8_t type = 0;
    uint16_t len = 0;
    std::array<uint8_t, 16> serial{};
    uint32_t uptime = 0;
    std::array<uint8_t, 6> mac{};
    uint8_t name_len = 0;
    std::array<uint8_t, 64> name{};
    uint32_t ka_rate = 0;
};

// Decodes a control payload of type 0x1F or 0x20 as the AP sends it. Returns ""
// or the reason it is refused (length field below the minimum or beyond the
// received bytes, wrong type).
std::string dsim_req_decode(std::span<const uint8_t> payload, dsim_ap_req &out);

// Whole datagrams (header included). The responses echo bytes 4 onward of the
// request they answer; req_payload must have passed dsim_req_decode.
dsim_bytes dsim_build_reg_resp(std::span<const uint8_t> req_payload);
dsim_bytes dsim_build_ka_resp(std::span<const uint8_t> req_payload);
// DRAV IP message naming addr (network order, as in a socket address).
dsim_bytes dsim_build_dravip(uint32_t addr_net);
// Acknowledgement of the AP's message ap_trans whose last fragment was frag.
dsim_bytes dsim_build_ack(uint8_t flags, uint8_t frag, uint8_t ap_trans);
