#pragma once
// Datagrams a simulated controller sends, for tests, fuzz targets and the
// simulation. Well-formed ones come from drav-sim's codec so the wire format
// is encoded in one place; frame() and ctrl_packet() also make malformed ones.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "link/wire.h"

// A frame header for payload, then payload.
std::vector<uint8_t> frame(uint8_t flags, uint8_t frag, uint8_t ctlr_trans, uint8_t ap_trans,
                           const std::vector<uint8_t> &payload);
// A control packet of size bytes (type, 0, length field len_field) in a frame with frame_flags.
std::vector<uint8_t> ctrl_packet(uint8_t type, uint16_t len_field, std::size_t size,
                                 uint8_t frame_flags = TOVRIN_F_CTRL);
inline std::vector<uint8_t> reg_response(uint16_t len_field = TOVRIN_REG_LEN, std::size_t size = TOVRIN_REG_LEN) {
    return ctrl_packet(TOVRIN_CTRL_REGISTER, len_field, size);
}
inline std::vector<uint8_t> ka_response(uint16_t len_field = TOVRIN_KA_LEN, std::size_t size = TOVRIN_KA_LEN) {
    return ctrl_packet(TOVRIN_CTRL_KEEPALIVE, len_field, size);
}
std::vector<uint8_t> ack_for(uint8_t ap_trans, uint8_t frag = 0);
// A plain data payload ('!') from src to dst carrying data (at most 16372 bytes).
std::vector<uint8_t> plain_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data);
// An encrypted payload ('&') with key and IV (first 16 bytes); empty when the key cannot be set up.
std::vector<uint8_t> enc_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data,
                                 const std::vector<uint8_t> &key, const std::vector<uint8_t> &iv);
// Controller fragments of payload (flags 0x24, RETX on all when retx, MORE_FRAGS on all but the last).
std::vector<std::vector<uint8_t>> fragments(const std::vector<uint8_t> &payload, uint8_t ctlr_trans, bool retx = false);
