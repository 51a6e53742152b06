#pragma once
// From a captured frame to the UDP datagram it carries: Ethernet (VLAN tags
// included), Linux cooked captures (SLL and SLL2) and raw IPv4, then IPv4 and
// UDP. Every length is checked against the bytes captured; nothing is cast
// onto the frame.
#include <cstdint>
#include <span>
#include <string>

enum class tpcap_link_status {
    udp,    // a whole UDP datagram; out is filled
    other,  // not IPv4/UDP: of no interest here
    bad,    // IPv4/UDP (or claims to be) but malformed, fragmented or cut short
};

struct tpcap_udp {
    uint32_t src_ip = 0, dst_ip = 0;  // host order: 0xc6120001 is 198.18.0.1
    uint16_t src_port = 0, dst_port = 0;
    std::span<const uint8_t> payload;  // views the frame given
};

// Decodes one captured frame of link type dlt (a DLT_ value of libpcap).
// frame holds the captured bytes; the reason says why for other and bad.
tpcap_link_status tpcap_decode_frame(int dlt, std::span<const uint8_t> frame, tpcap_udp &out, std::string &reason);

// "198.18.0.1"
std::string tpcap_fmt_ip(uint32_t ip);
// "198.18.0.1:6650"
std::string tpcap_fmt_endpoint(uint32_t ip, uint16_t port);
