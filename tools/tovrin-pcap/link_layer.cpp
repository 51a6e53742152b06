#include "tools/tovrin-pcap/link_layer.h"

#include <pcap/dlt.h>

#include "link/wire.h"

namespace {

constexpr uint16_t ETH_IPV4 = 0x0800;
constexpr uint16_t ETH_VLAN = 0x8100;
constexpr uint16_t ETH_QINQ = 0x88a8;
constexpr uint8_t IP_UDP = 17;

tpcap_link_status other(std::string &reason, const std::string &why) {
    reason = why;
    return tpcap_link_status::other;
}
tpcap_link_status bad(std::string &reason, const std::string &why) {
    reason = why;
    return tpcap_link_status::bad;
}

// Offset of the IPv4 header, or a status when there is none.
bool ip_offset(int dlt, std::span<const uint8_t> f, std::size_t &off, tpcap_link_status &st, std::string &reason) {
    uint16_t proto = 0;
    switch (dlt) {
    case DLT_EN10MB: {
        if (f.size() < 14) {
            st = bad(reason, "Ethernet header cut short");
            return false;
        }
        off = 12;
        proto = tovrin_load16(&f[off]);
        while (proto == ETH_VLAN || proto == ETH_QINQ) {
            if (f.size() < off + 6) {
                st = bad(reason, "VLAN tag cut short");
                return false;
            }
            off += 4;
            proto = tovrin_load16(&f[off]);
        }
        off += 2;
        break;
    }
    case DLT_LINUX_SLL:
        if (f.size() < 16) {
            st = bad(reason, "Linux cooked header cut short");
            return false;
        }
        proto = tovrin_load16(&f[14]);
        off = 16;
        break;
    case DLT_LINUX_SLL2:
        if (f.size() < 20) {
            st = bad(reason, "Linux cooked (v2) header cut short");
            return false;
        }
        proto = tovrin_load16(&f[0]);
        off = 20;
        break;
    case DLT_RAW:
    case DLT_IPV4:
        off = 0;
        proto = ETH_IPV4;
        break;
    default: st = other(reason, "link type " + std::to_string(dlt) + " not supported"); return false;
    }
    if (proto != ETH_IPV4) {
        st = other(reason, "not IPv4");
        return false;
    }
    return true;
}

}  // namespace

tpcap_link_status tpcap_decode_frame(int dlt, std::span<const uint8_t> f, tpcap_udp &out, std::string &reason) {
    std::size_t off = 0;
    tpcap_link_status st = tpcap_link_status::other;
    if (!ip_offset(dlt, f, off, st, reason)) return st;
    std::span<const uint8_t> ip = f.subspan(off);
    if (ip.size() < 20) return bad(reason, "IPv4 header cut short");
    if ((ip[0] >> 4) != 4) return bad(reason, "IP version " + std::to_string(ip[0] >> 4));
    std::size_t ihl = (ip[0] & 0x0fu) * 4u;
    std::size_t total = tovrin_load16(&ip[2]);
    if (ihl < 20 || total < ihl)
        return bad(reason, "IPv4 lengths " + std::to_string(ihl) + "/" + std::to_string(total));
    if (ip[9] != IP_UDP) return other(reason, "not UDP");
    if ((tovrin_load16(&ip[6]) & 0x3fffu) != 0) return bad(reason, "IPv4 fragment");
    // Ethernet pads short frames: the IPv4 total length, not the frame, bounds the datagram.
    if (ip.size() < total)
        return bad(reason, "cut short by the capture: " + std::to_string(ip.size()) + " of " + std::to_string(total) +
                               " IPv4 bytes");
    std::span<const uint8_t> udp = ip.subspan(ihl, total - ihl);
    if (udp.size() < 8) return bad(reason, "UDP header cut short");
    std::size_t ulen = tovrin_load16(&udp[4]);
    if (ulen < 8 || ulen > udp.size()) return bad(reason, "UDP length " + std::to_string(ulen));
    out.src_ip = tovrin_load32(&ip[12]);
    out.dst_ip = tovrin_load32(&ip[16]);
    out.src_port = tovrin_load16(&udp[0]);
    out.dst_port = tovrin_load16(&udp[2]);
    out.payload = udp.subspan(8, ulen - 8);
    reason.clear();
    return tpcap_link_status::udp;
}

std::string tpcap_fmt_ip(uint32_t ip) {
    return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xff) + "." + std::to_string((ip >> 8) & 0xff) +
           "." + std::to_string(ip & 0xff);
}

std::string tpcap_fmt_endpoint(uint32_t ip, uint16_t port) { return tpcap_fmt_ip(ip) + ":" + std::to_string(port); }
