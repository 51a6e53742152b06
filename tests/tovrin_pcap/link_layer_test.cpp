// From captured frames to UDP datagrams: every link type read alike, and every
// malformed, cut-short or foreign frame told apart.
#include <gtest/gtest.h>
#include <pcap/dlt.h>

#include "frames.h"
#include "tools/tovrin-pcap/link_layer.h"

namespace {

constexpr uint32_t AP = 0xc6120002, CTL = 0xc6120001;  // 198.18.0.2, 198.18.0.1

// An acknowledgement: 12 bytes, so the Ethernet frame carries padding after it.
const tbytes ACK = hex_bytes("010c0000deadfeed08000300");

TEST(TovrinPcapLinkLayer, EveryLinkTypeYieldsTheSameDatagram) {
    // The Ethernet frame in full, once: MACs, IPv4 header, UDP header, the
    // acknowledgement, and the padding to 60 bytes that must not be taken in.
    const tbytes eth_full = hex_bytes(
        "020000000001 020000000002 0800"
        "4500 0028 0000 0000 4011 0000 c6120002 c6120001"
        "19fa 19fa 0014 0000"
        "010c0000deadfeed08000300"
        "000000000000");
    ASSERT_EQ(hex_str(eth_full), hex_str(ethernet(ipv4_udp(AP, CTL, ACK))));
    tbytes vlan = hex_bytes("020000000001 020000000002 8100 0005 0800");
    tbytes ip = ipv4_udp(AP, CTL, ACK);
    vlan.insert(vlan.end(), ip.begin(), ip.end());
    struct {
        const char *name;
        int dlt;
        tbytes frame;
    } cases[] = {
        {"Ethernet", DLT_EN10MB, eth_full},
        {"Ethernet with a VLAN tag", DLT_EN10MB, vlan},
        {"Linux cooked", DLT_LINUX_SLL, sll(ip)},
        {"Linux cooked v2", DLT_LINUX_SLL2, sll2(ip)},
        {"raw IPv4", DLT_RAW, ip},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tpcap_udp u;
        std::string why;
        ASSERT_EQ(tpcap_decode_frame(c.dlt, c.frame, u, why), tpcap_link_status::udp) << why;
        EXPECT_EQ(tpcap_fmt_endpoint(u.src_ip, u.src_port), "198.18.0.2:6650");
        EXPECT_EQ(tpcap_fmt_endpoint(u.dst_ip, u.dst_port), "198.18.0.1:6650");
        EXPECT_EQ(hex_str(tbytes(u.payload.begin(), u.payload.end())), hex_str(ACK));
    }
}

// The IPv4 packet with one byte (or 16-bit field) changed.
tbytes ip_with(std::size_t at, uint8_t v) {
    tbytes ip = ipv4_udp(AP, CTL, ACK);
    ip[at] = v;
    return ip;
}
tbytes first(const tbytes &b, std::size_t n) { return tbytes(b.begin(), b.begin() + static_cast<long>(n)); }

TEST(TovrinPcapLinkLayer, ForeignMalformedAndCutFramesAreToldApart) {
    using st = tpcap_link_status;
    const tbytes ip = ipv4_udp(AP, CTL, ACK);
    struct {
        const char *name;
        int dlt;
        tbytes frame;
        st status;
        const char *reason;
    } cases[] = {
        {"Ethernet header of 13 bytes", DLT_EN10MB, first(ethernet(ip), 13), st::bad, "Ethernet header cut short"},
        {"ARP", DLT_EN10MB, ethernet(ip, 0x0806), st::other, "not IPv4"},
        {"VLAN tag cut short", DLT_EN10MB, hex_bytes("020000000001 020000000002 8100 0005"), st::bad,
         "VLAN tag cut short"},
        {"Linux cooked header of 15 bytes", DLT_LINUX_SLL, first(sll(ip), 15), st::bad, "Linux cooked header"},
        {"Linux cooked v2 header of 19 bytes", DLT_LINUX_SLL2, first(sll2(ip), 19), st::bad, "(v2) header"},
        {"IPv6 in a cooked capture", DLT_LINUX_SLL, sll(ip, 0x86dd), st::other, "not IPv4"},
        {"a link type of no interest", DLT_IEEE802_11, ip, st::other, "link type 105"},
        {"IPv4 header of 19 bytes", DLT_RAW, first(ip, 19), st::bad, "IPv4 header cut short"},
        {"IP version 6 behind the IPv4 type", DLT_RAW, ip_with(0, 0x65), st::bad, "IP version 6"},
        {"IPv4 header length 16", DLT_RAW, ip_with(0, 0x44), st::bad, "IPv4 lengths 16/40"},
        {"IPv4 total length below its header", DLT_RAW, ip_with(3, 19), st::bad, "IPv4 lengths 20/19"},
        {"TCP", DLT_RAW, ip_with(9, 6), st::other, "not UDP"},
        {"first IPv4 fragment (more fragments)", DLT_RAW, ip_with(6, 0x20), st::bad, "IPv4 fragment"},
        {"later IPv4 fragment (offset)", DLT_RAW, ip_with(7, 0x01), st::bad, "IPv4 fragment"},
        {"cut short by the snap length", DLT_RAW, first(ip, 30), st::bad, "cut short by the capture: 30 of 40"},
        {"UDP header of 7 bytes", DLT_RAW,
         [] {
             tbytes b = first(ipv4_udp(AP, CTL, ACK), 27);
             b[3] = 27;
             return b;
         }(),
         st::bad, "UDP header cut short"},
        {"UDP length 7", DLT_RAW, ip_with(25, 7), st::bad, "UDP length 7"},
        {"UDP length beyond the IPv4 packet", DLT_RAW, ip_with(25, 21), st::bad, "UDP length 21"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tpcap_udp u;
        std::string why;
        EXPECT_EQ(tpcap_decode_frame(c.dlt, c.frame, u, why), c.status);
        EXPECT_NE(why.find(c.reason), std::string::npos) << why;
    }
}

}  // namespace
