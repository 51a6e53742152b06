#include "frames.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

void put16(tbytes &b, std::size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v);
}
void put32(tbytes &b, std::size_t at, uint32_t v) {
    put16(b, at, static_cast<uint16_t>(v >> 16));
    put16(b, at + 2, static_cast<uint16_t>(v));
}
// Little-endian appends, as the capture file headers are written here.
void le16(tbytes &b, uint16_t v) {
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}
void le32(tbytes &b, uint32_t v) {
    le16(b, static_cast<uint16_t>(v));
    le16(b, static_cast<uint16_t>(v >> 16));
}

// A link-layer header given as hex, its protocol field at proto_at set, then the IP packet.
tbytes behind_header(const char *header_hex, size_t proto_at, uint16_t proto, const tbytes &ip) {
    tbytes b = hex_bytes(header_hex);
    put16(b, proto_at, proto);
    b.insert(b.end(), ip.begin(), ip.end());
    return b;
}

}  // namespace

tbytes ipv4_udp(uint32_t src, uint32_t dst, const tbytes &payload, uint16_t sport, uint16_t dport) {
    tbytes b(28, 0);
    b[0] = 0x45;
    put16(b, 2, static_cast<uint16_t>(28 + payload.size()));
    b[8] = 64;
    b[9] = 17;
    put32(b, 12, src);
    put32(b, 16, dst);
    put16(b, 20, sport);
    put16(b, 22, dport);
    put16(b, 24, static_cast<uint16_t>(8 + payload.size()));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

tbytes ethernet(const tbytes &ip, uint16_t ethertype) {
    tbytes b = behind_header("020000000001 020000000002 0000", 12, ethertype, ip);
    while (b.size() < 60) b.push_back(0);  // as Ethernet pads short frames
    return b;
}

tbytes sll(const tbytes &ip, uint16_t proto) {
    return behind_header("0000 0001 0006 020000000002 0000 0000", 14, proto, ip);
}

tbytes sll2(const tbytes &ip, uint16_t proto) {
    return behind_header("0000 0000 00000002 0001 00 06 020000000002 0000", 0, proto, ip);
}

tbytes pcap_file(uint32_t linktype, const std::vector<tbytes> &frames) {
    tbytes b;
    le32(b, 0xa1b2c3d4);
    le16(b, 2);
    le16(b, 4);
    le32(b, 0);
    le32(b, 0);
    le32(b, 65535);
    le32(b, linktype);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        le32(b, 1700000000);
        le32(b, static_cast<uint32_t>(i * 1000));
        le32(b, static_cast<uint32_t>(frames[i].size()));
        le32(b, static_cast<uint32_t>(frames[i].size()));
        b.insert(b.end(), frames[i].begin(), frames[i].end());
    }
    return b;
}

tbytes pcapng_file(uint16_t linktype, const std::vector<tbytes> &frames) {
    tbytes b;
    // Section header block.
    le32(b, 0x0a0d0d0a);
    le32(b, 28);
    le32(b, 0x1a2b3c4d);
    le16(b, 1);
    le16(b, 0);
    le32(b, 0xffffffff);
    le32(b, 0xffffffff);
    le32(b, 28);
    // Interface description block (microsecond stamps by default).
    le32(b, 1);
    le32(b, 20);
    le16(b, linktype);
    le16(b, 0);
    le32(b, 65535);
    le32(b, 20);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        std::size_t padded = (frames[i].size() + 3) / 4 * 4;
        uint32_t len = static_cast<uint32_t>(32 + padded);
        uint64_t ts = 1700000000ull * 1000000 + i * 1000;
        le32(b, 6);
        le32(b, len);
        le32(b, 0);
        le32(b, static_cast<uint32_t>(ts >> 32));
        le32(b, static_cast<uint32_t>(ts));
        le32(b, static_cast<uint32_t>(frames[i].size()));
        le32(b, static_cast<uint32_t>(frames[i].size()));
        b.insert(b.end(), frames[i].begin(), frames[i].end());
        b.resize(b.size() + padded - frames[i].size(), 0);
        le32(b, len);
    }
    return b;
}
