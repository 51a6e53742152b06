// The link as tovrin-pcap reads it from datagrams: directions, messages put
// together per direction and number, decryption and digest, retransmissions,
// acknowledgements missing and fragments lost.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "frames.h"
#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/payload.h"
#include "tools/tovrin-pcap/decoder.h"
#include "tools/tovrin-pcap/report.h"

namespace {

constexpr uint32_t AP = 0xc6120002, CTL = 0xc6120001;
const dsim_bytes KEY = hex_bytes("000102030405060708090a0b0c0d0e0f");
const dsim_iv IV = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

dsim_bytes header(uint8_t flags, uint8_t frag, uint8_t ctlr, uint8_t ap, std::size_t data_len) {
    tovrin_hdr_t h = tovrin_hdr_make(flags);
    h.frag = frag;
    h.ctlr_trans = ctlr;
    h.ap_trans = ap;
    h.data_len = static_cast<uint16_t>(data_len);
    dsim_bytes b(TOVRIN_HDR_LEN);
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(b.data(), TOVRIN_HDR_LEN));
    return b;
}

// The AP's requests (flags 0xa0) and the controller's responses (0x80).
dsim_bytes ctrl(uint8_t flags, uint8_t type, uint16_t len) {
    dsim_bytes b = header(flags, 0, 0, 0, len);
    dsim_bytes p(len, 0);
    p[0] = type;
    tovrin_store16(&p[2], len);
    b.insert(b.end(), p.begin(), p.end());
    return b;
}
dsim_bytes ack(uint8_t flags, uint8_t frag, uint8_t ctlr, uint8_t ap) { return header(flags, frag, ctlr, ap, 0); }

dsim_bytes plain(const std::string &text, uint32_t src = 105, uint32_t dst = 102) {
    dsim_bytes out;
    dsim_payload_plain(src, dst, dsim_bytes(text.begin(), text.end()), out);
    return out;
}
dsim_bytes encrypted(const std::string &text) {
    dsim_bytes out;
    dsim_payload_enc(201, 101, dsim_bytes(text.begin(), text.end()), KEY, IV, out);
    return out;
}

// One step of a scripted capture: a datagram from the AP or from the controller.
struct step {
    bool from_ap;
    dsim_bytes dgram;
};
std::vector<step> up(const std::vector<dsim_bytes> &ds) {
    std::vector<step> s;
    for (const auto &d : ds) s.push_back({true, d});
    return s;
}
std::vector<step> down(const std::vector<dsim_bytes> &ds) {
    std::vector<step> s;
    for (const auto &d : ds) s.push_back({false, d});
    return s;
}
std::vector<step> operator+(std::vector<step> a, const std::vector<step> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
std::vector<dsim_bytes> without(std::vector<dsim_bytes> v, std::size_t i) {
    v.erase(v.begin() + static_cast<long>(i));
    return v;
}

// Feeds the steps a millisecond apart; returns the message lines and the summary.
std::string run(const std::vector<step> &steps, const dsim_bytes &key) {
    tpcap_decoder d;
    d.key = key;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        tpcap_udp u;
        u.src_ip = steps[i].from_ap ? AP : CTL;
        u.dst_ip = steps[i].from_ap ? CTL : AP;
        u.src_port = u.dst_port = TOVRIN_PORT;
        u.payload = steps[i].dgram;
        tpcap_feed_udp(d, static_cast<double>(i) / 1000, u);
    }
    tpcap_finish(d);
    std::string out;
    for (const tpcap_msg &m : d.messages) out += tpcap_fmt_msg(m, {}) + "\n";
    return out + tpcap_fmt_summary(d.st, {});
}

const dsim_bytes REG_REQ = ctrl(0xa0, TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN);
const dsim_bytes REG_RESP = ctrl(0x80, TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN);

TEST(TovrinPcapDecoder, MessagesAndTheirCounts) {
    const auto hello = dsim_fragment(plain("hello"), 0, 1, false);
    const auto hello_again = dsim_fragment(plain("hello"), 0, 1, true);
    const auto long_up = dsim_fragment(plain(std::string(2500, 'L')), 0, 2, false);
    const auto long_up_again = dsim_fragment(plain(std::string(2500, 'L')), 0, 2, true);
    const auto secret = dsim_fragment(encrypted("secret"), 7, 1, false);
    struct {
        const char *name;
        std::vector<step> steps;
        dsim_bytes key;
        std::vector<std::string> expect;  // substrings of the output, in order
    } cases[] = {
        {"the registration request tells the AP; its message up is acknowledged",
         up({REG_REQ}) + down({REG_RESP}) + up(hello) + down({ack(0x08, 0, 0, 1)}),
         {},
         {"0.002000 AP->DRAV msg ap_trans=1 ctlr_trans=0 src=105 dst=102 plain size=17 len=5 acked data=\"hello\"\n",
          "messages=1 up=1 down=0 plain=1 ", "acks_missing=0 frags_lost=0 incomplete=0 ", " ctrl=2 acks=1 "}},
        {"the controller's message is numbered by ctlr_trans and acknowledged by the AP",
         down({REG_RESP}) + down(secret) + up({ack(0x08, 0, 7, 0)}),
         KEY,
         {"DRAV->AP msg ap_trans=1 ctlr_trans=7 src=201 dst=101 enc size=64 len=6 md5=ok acked data=\"secret\"",
          "messages=1 up=0 down=1 plain=0 enc=1 md5_ok=1 md5_bad=0 unchecked=0 "}},
        {"without the key the digest is not checked and no data shown",
         down(secret),
         {},
         {"enc size=64 len=6 md5=unchecked unacked\n", "unchecked=1 ", "acks_missing=1 "}},
        {"with another key the digest fails",
         down(secret),
         hex_bytes("0f0e0d0c0b0a09080706050403020100"),
         {"md5=bad unacked\n", "md5_bad=1 "}},
        {"the AP's acknowledgement alone tells the direction",
         up({ack(0x08, 0, 7, 0)}) + down(secret),
         KEY,
         {"DRAV->AP msg", "acks_unmatched=1 "}},
        {"a retransmission of a message already seen whole is one message sent twice",
         up({REG_REQ}) + up(hello) + up(hello_again) + down({ack(0x0a, 0, 0, 1)}),
         {},
         {"plain size=17 len=5 transmissions=2 acked", "messages=1 ", "retransmissions=1 acks_missing=0 ",
          "acks_repeated=1 "}},
        {"a fragment lost in the first transmission, the retransmission completes it",
         up({REG_REQ}) + up(without(long_up, 1)) + up(long_up_again) + down({ack(0x08, 2, 0, 2)}),
         {},
         {"plain size=2512 len=2500 frags=3 transmissions=2 acked", "messages=1 ",
          "retransmissions=1 acks_missing=0 frags_lost=1 "
          "incomplete=0 "}},
        {"a message never completed: its missing fragment and the message are counted",
         up({REG_REQ}) + up(without(long_up, 1)),
         {},
         {"# summary messages=0 ", "frags_lost=1 incomplete=1 "}},
        {"a last fragment lost: the length field tells how many were due",
         up({REG_REQ}) + up(without(long_up, 2)),
         {},
         {"# summary messages=0 ", "frags_lost=1 incomplete=1 "}},
        {"the first fragment lost: counted up to the last fragment seen",
         up({REG_REQ}) + up(without(long_up, 0)),
         {},
         {"# summary messages=0 ", "frags_lost=1 incomplete=1 "}},
        {"a new first fragment under a number used before is a new message",
         up({REG_REQ}) + up(hello) + up(hello),
         {},
         {"messages=2 ", "retransmissions=0 acks_missing=2 "}},
        {"an acknowledgement of another number matches nothing",
         up({REG_REQ}) + up(hello) + down({ack(0x08, 0, 0, 9)}),
         {},
         {"unacked", "acks_missing=1 ", "acks_unmatched=1 "}},
        {"malformed datagrams are counted and read no further",
         up({REG_REQ,
             [] {
                 dsim_bytes b = REG_REQ;
                 b[0] = 2;
                 return b;
             }(),
             dsim_bytes(5, 1)}),
         {},
         {"datagrams=3 malformed=2 ctrl=1 "}},
        {"a message over 16384 bytes is not opened",
         [] {
             dsim_bytes big = plain(std::string(16372, 'b'));
             big.resize(17 * 1024, 'b');  // 17 fragments; the length field no longer matches either
             return up({REG_REQ}) + up(dsim_fragment(big, 0, 3, false));
         }(),
         {},
         {"bad size=17408 frags=17 unacked bad=\"message of 17408 bytes exceeds 16384\"", "bad=1 "}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string out = run(c.steps, c.key);
        std::size_t at = 0;
        for (const std::string &e : c.expect) {
            std::size_t f = out.find(e, at);
            EXPECT_NE(f, std::string::npos) << "missing: " << e << "\nin:\n" << out;
            if (f != std::string::npos) at = f + e.size();
        }
    }
}

TEST(TovrinPcapDecoder, TextAndJsonForms) {
    tpcap_msg m;
    m.time = 1.5;
    m.dir = tpcap_dir::up;
    m.from = "198.18.0.2:6650";
    m.to = "198.18.0.1:6650";
    m.ap_trans = 4;
    m.size = 15;
    m.ack_req = true;
    m.opened = dsim_payload_open(plain("a\"b\x01", 105, 102), {});
    EXPECT_EQ(tpcap_fmt_msg(m, {}),
              "1.500000 AP->DRAV msg ap_trans=4 ctlr_trans=0 src=105 dst=102 plain size=15 len=4 unacked "
              "data=hex:61226201");
    EXPECT_EQ(tpcap_fmt_msg(m, {.json = true}),
              "{\"kind\":\"msg\",\"time\":1.500000,\"dir\":\"AP->DRAV\",\"from\":\"198.18.0.2:6650\","
              "\"to\":\"198.18.0.1:6650\",\"ap_trans\":4,\"ctlr_trans\":0,\"type\":\"plain\",\"src\":105,"
              "\"dst\":102,\"size\":15,\"frags\":0,\"transmissions\":1,\"len\":4,\"ack_req\":true,"
              "\"acked\":false,\"data_hex\":\"61226201\"}");
    std::string text(100, 'x');
    m.opened = dsim_payload_open(plain(text), {});
    EXPECT_NE(tpcap_fmt_msg(m, {}).find("data=\"" + std::string(64, 'x') + "\"..."), std::string::npos);
    EXPECT_NE(tpcap_fmt_msg(m, {.full = true}).find("data=\"" + text + "\""), std::string::npos);
    EXPECT_EQ(tpcap_json_str("q\"\\\n\x7f"), "\"q\\\"\\\\\\n\\u007f\"");
}

}  // namespace
