#pragma once
// Builders of captured frames and capture files for the tovrin-pcap tests.
#include <cstdint>
#include <string>
#include <vector>

#include "tests/drav_sim/helpers.h"

using tbytes = std::vector<uint8_t>;

// Hex text both ways, as the drav-sim tests write it (tests/drav_sim/helpers.h).
inline tbytes hex_bytes(const std::string &hex) { return bytes_of_hex(hex); }  // spaces ignored
inline std::string hex_str(const tbytes &b) { return hex_of(b); }

// IPv4 (no options) carrying UDP from src to dst, both port 6650 unless given.
tbytes ipv4_udp(uint32_t src, uint32_t dst, const tbytes &payload, uint16_t sport = 6650, uint16_t dport = 6650);
tbytes ethernet(const tbytes &ip, uint16_t ethertype = 0x0800);
tbytes sll(const tbytes &ip, uint16_t proto = 0x0800);
tbytes sll2(const tbytes &ip, uint16_t proto = 0x0800);

// A classic pcap file (microsecond stamps) of link type linktype with the
// frames given, each stamped 1700000000 s plus its index in milliseconds.
tbytes pcap_file(uint32_t linktype, const std::vector<tbytes> &frames);
// The same frames as pcapng: one section, one interface, enhanced packet blocks.
tbytes pcapng_file(uint16_t linktype, const std::vector<tbytes> &frames);

// A directory under /tmp removed with its files when the object goes.
struct scratch_dir : temp_dir {
    // Writes b to the file name in it; returns the file's path.
    std::string write(const std::string &name, const tbytes &b) const {
        write_file(file(name), b);
        return file(name);
    }
};
