#pragma once
// Wire formats of the link: the 12-byte frame header, data and control payload
// heads, their constants, and explicit big-endian loads and stores. Received
// bytes are always decoded field by field, never cast onto a struct.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr uint16_t TOVRIN_PORT = 6650;
inline constexpr uint32_t TOVRIN_MAGIC = 0xdeadfeed;
inline constexpr uint8_t TOVRIN_VERSION = 1;
inline constexpr std::size_t TOVRIN_HDR_LEN = 12;
inline constexpr std::size_t TOVRIN_FRAG_SIZE = 1024;
inline constexpr std::size_t TOVRIN_MAX_DGRAM = TOVRIN_HDR_LEN + TOVRIN_FRAG_SIZE;  // 1036
inline constexpr std::size_t TOVRIN_MAX_PAYLOAD = 16384;
inline constexpr std::size_t TOVRIN_MAX_FRAGS = TOVRIN_MAX_PAYLOAD / TOVRIN_FRAG_SIZE;  // 16

// Frame flags.
inline constexpr uint8_t TOVRIN_F_CTRL = 0x80;
inline constexpr uint8_t TOVRIN_F_DATA = 0x20;
inline constexpr uint8_t TOVRIN_F_ACK = 0x08;
inline constexpr uint8_t TOVRIN_F_ACK_REQ = 0x04;
inline constexpr uint8_t TOVRIN_F_RETX = 0x02;
inline constexpr uint8_t TOVRIN_F_MORE_FRAGS = 0x01;

// Data payload types and inner header sizes.
inline constexpr uint8_t TOVRIN_DATA_PLAIN = '!';
inline constexpr uint8_t TOVRIN_DATA_ENC = '&';
inline constexpr std::size_t TOVRIN_PLAIN_HDR_LEN = 12;
inline constexpr std::size_t TOVRIN_ENC_HDR_LEN = 48;
inline constexpr std::size_t TOVRIN_MAX_PLAIN_DATA = TOVRIN_MAX_PAYLOAD - TOVRIN_PLAIN_HDR_LEN;  // 16372
inline constexpr std::size_t TOVRIN_MAX_ENC_DATA = TOVRIN_MAX_PAYLOAD - TOVRIN_ENC_HDR_LEN;      // 16336
inline constexpr std::size_t TOVRIN_AES_BLOCK = 16;
inline constexpr std::size_t TOVRIN_IV_LEN = 16;
inline constexpr std::size_t TOVRIN_MD5_LEN = 16;
// Offsets inside a data payload's inner header.
inline constexpr std::size_t TOVRIN_DOFF_TYPE = 0;
inline constexpr std::size_t TOVRIN_DOFF_LEN = 2;
inline constexpr std::size_t TOVRIN_DOFF_SRC = 4;
inline constexpr std::size_t TOVRIN_DOFF_DST = 8;
inline constexpr std::size_t TOVRIN_DOFF_PAD = 12;
inline constexpr std::size_t TOVRIN_DOFF_IV = 16;
inline constexpr std::size_t TOVRIN_DOFF_MD5 = 32;

// Control payloads: type byte, zero byte, 16-bit length (these 4 bytes included).
inline constexpr std::size_t TOVRIN_CTRL_HDR_LEN = 4;
inline constexpr uint8_t TOVRIN_CTRL_REGISTER = 0x1f;
inline constexpr uint8_t TOVRIN_CTRL_KEEPALIVE = 0x20;
inline constexpr uint8_t TOVRIN_CTRL_DRAVIP = 0x22;
inline constexpr uint16_t TOVRIN_REG_LEN = 104;
inline constexpr uint16_t TOVRIN_KA_LEN = 36;
inline constexpr uint16_t TOVRIN_DRAVIP_LEN = 12;

inline constexpr uint16_t tovrin_load16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline constexpr uint32_t tovrin_load32(const uint8_t *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline constexpr void tovrin_store16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline constexpr void tovrin_store32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// The frame header, fields in host order; tovrin_hdr_encode/decode convert.
struct tovrin_hdr_t {
    uint8_t version;
    uint8_t hdr_len;
    uint16_t data_len;
    uint32_t magic;
    uint8_t flags;
    uint8_t frag;
    uint8_t ctlr_trans;
    uint8_t ap_trans;
};
static_assert(sizeof(tovrin_hdr_t) == TOVRIN_HDR_LEN);

// A header with version 1, length 12, the magic and the given flags; the rest 0.
tovrin_hdr_t tovrin_hdr_make(uint8_t flags);
// Writes the 12 wire bytes of h.
void tovrin_hdr_encode(const tovrin_hdr_t &h, std::span<uint8_t, TOVRIN_HDR_LEN> out);
// Reads the 12 wire bytes at the start of in (the caller has checked the size).
tovrin_hdr_t tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN> in);

// IPv4 addresses are held in network order; these give the octets for "%u.%u.%u.%u".
inline constexpr unsigned tovrin_ip_octet(uint32_t ip_net, int i) {
    // ip_net is stored as in a socket address: octet 0 first in memory.
    if constexpr (std::endian::native == std::endian::little)
        return (ip_net >> (8 * i)) & 0xff;
    else
        return (ip_net >> (8 * (3 - i))) & 0xff;
}
#define TOVRIN_IP_ARGS(ip) \
    tovrin_ip_octet((ip), 0), tovrin_ip_octet((ip), 1), tovrin_ip_octet((ip), 2), tovrin_ip_octet((ip), 3)

// The address as a number whose most significant byte is the first octet.
#define TOVRIN_IP_OCTETS_AS_U32(ip)                                                                          \
    ((tovrin_ip_octet((ip), 0) << 24) | (tovrin_ip_octet((ip), 1) << 16) | (tovrin_ip_octet((ip), 2) << 8) | \
     tovrin_ip_octet((ip), 3))
