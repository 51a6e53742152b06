#pragma once
// Builders of captured frames and capture files for the tovrin-pcap tests.
#include <cstdint>
#include <string>
#include <vector>

using tbytes = std::vector<uint8_t>;

tbytes hex_bytes(const std::string &hex);  // spaces ignored
std::string hex_str(const tbytes &b);

// IPv4 (no options) carrying UDP from src to dst, both port 6650 unless given.
tbytes ipv4_udp(uint32_t src, uint32_t dst, const tbytes &payload, uint16_t sport = 6650,
                uint16_t dport = 6650);
tbytes ethernet(const tbytes &ip, uint16_t ethertype = 0x0800);
tbytes sll(const tbytes &ip, uint16_t proto = 0x0800);
tbytes sll2(const tbytes &ip, uint16_t proto = 0x0800);

// A classic pcap file (microsecond stamps) of link type linktype with the
// frames given, each stamped 1700000000 s plus its index in milliseconds.
tbytes pcap_file(uint32_t linktype, const std::vector<tbytes> &frames);
// The same frames as pcapng: one section, one interface, enhanced packet blocks.
tbytes pcapng_file(uint16_t linktype, const std::vector<tbytes> &frames);

// A directory under /tmp removed with its files when the object goes.
struct scratch_dir {
    std::string path;
    scratch_dir();
    ~scratch_dir();
    scratch_dir(const scratch_dir &) = delete;
    scratch_dir &operator=(const scratch_dir &) = delete;
    std::string write(const std::string &name, const tbytes &b) const;
};
