#include "tools/tovrin-pcap/decoder.h"

#include "tools/drav-sim/format.h"

const char *tpcap_dir_name(tpcap_dir d) {
    return d == tpcap_dir::up ? "AP->DRAV" : d == tpcap_dir::down ? "DRAV->AP" : "?";
}

namespace {

// By the AP's endpoint once known in this conversation, else from what only
// one side sends: the AP's requests carry the data flag, the controller's
// control packets do not; the AP's acknowledgements carry ap_trans 0.
std::string conversation(const std::string &from, const std::string &to) {
    return from < to ? from + "|" + to : to + "|" + from;
}

// As far as the datagrams before this one tell.
tpcap_dir known_direction(const tpcap_decoder &d, const std::string &from, const std::string &to) {
    auto known = d.aps.find(conversation(from, to));
    if (known == d.aps.end()) return tpcap_dir::unknown;
    return known->second == from ? tpcap_dir::up : tpcap_dir::down;
}

tpcap_dir direction(tpcap_decoder &d, const std::string &from, const std::string &to, const tovrin_hdr_t &h) {
    std::string conv = conversation(from, to);
    if (d.aps.count(conv)) return known_direction(d, from, to);
    tpcap_dir dir = tpcap_dir::unknown;
    if (h.flags & TOVRIN_F_CTRL)
        dir = (h.flags & TOVRIN_F_DATA) ? tpcap_dir::up : tpcap_dir::down;
    else if (h.flags & TOVRIN_F_ACK) {
        if (h.ap_trans == 0 && h.ctlr_trans != 0)
            dir = tpcap_dir::up;
        else if (h.ap_trans != 0)
            dir = tpcap_dir::down;
    }
    if (dir == tpcap_dir::up)
        d.aps[conv] = from;
    else if (dir == tpcap_dir::down)
        d.aps[conv] = to;
    return dir;
}

// The message number a data fragment or acknowledgement carries for its sender
// (data) or for the other side (acknowledgement).
uint8_t data_num(tpcap_dir dir, const tovrin_hdr_t &h) { return dir == tpcap_dir::down ? h.ctlr_trans : h.ap_trans; }
uint8_t ack_num(tpcap_dir dir, const tovrin_hdr_t &h) {
    if (dir == tpcap_dir::up) return h.ctlr_trans;
    if (dir == tpcap_dir::down) return h.ap_trans;
    return h.ap_trans != 0 ? h.ap_trans : h.ctlr_trans;
}

// A transmission ends: the fragments it needed and did not show were lost.
void close_tx(tpcap_decoder &d, tpcap_tx &tx) {
    if (!tx.open) return;
    int total = tx.total > 0 ? tx.total : tx.last >= 0 ? tx.last + 1 : *tx.seen.rbegin() + 1;
    int seen = 0;
    for (int f : tx.seen)
        if (f < total) ++seen;
    if (total > seen) d.st.frags_lost += total - seen;
    tx = tpcap_tx{};
}

void track_tx(tpcap_decoder &d, tpcap_tx &tx, const tovrin_hdr_t &h, std::span<const uint8_t> p, uint8_t num) {
    if (h.frag == 0 || !tx.open || tx.num != num) {
        close_tx(d, tx);
        tx.open = true;
        tx.num = num;
    }
    tx.seen.insert(h.frag);
    if (h.frag == 0 && p.size() >= 4) {
        std::size_t len = tovrin_load16(&p[TOVRIN_DOFF_LEN]);
        tx.total = static_cast<int>(dsim_frag_count(len));
    }
    if (!(h.flags & TOVRIN_F_MORE_FRAGS)) tx.last = h.frag;
}

std::string data_what(const tovrin_hdr_t &h, uint8_t num) {
    std::string s = "DATA frag " + std::to_string(h.frag) + " of message " + std::to_string(num);
    if (h.flags & TOVRIN_F_RETX) s += " retransmission";
    return s;
}

void complete(tpcap_decoder &d, tpcap_asm &a, tpcap_dir dir, const std::string &from, const std::string &to, double t,
              const tovrin_hdr_t &h, uint8_t num) {
    dsim_bytes whole;
    for (int k = 0; k <= a.last; ++k) whole.insert(whole.end(), a.parts[k].begin(), a.parts[k].end());
    a.complete = true;
    a.parts.clear();
    tpcap_msg m;
    m.time = t;
    m.dir = dir;
    m.from = from;
    m.to = to;
    m.num = num;
    m.ap_trans = h.ap_trans;
    m.ctlr_trans = h.ctlr_trans;
    m.size = whole.size();
    m.frags = a.last + 1;
    m.transmissions = a.firsts > 0 ? a.firsts : 1;
    m.ack_req = (h.flags & TOVRIN_F_ACK_REQ) != 0;
    if (whole.size() > TOVRIN_MAX_PAYLOAD) {
        m.too_big = true;
        m.opened.problem = "message of " + std::to_string(whole.size()) + " bytes exceeds 16384";
    } else {
        m.opened = dsim_payload_open(whole, d.key);
    }
    a.msg = d.messages.size();
    d.messages.push_back(std::move(m));
}

void feed_data(tpcap_decoder &d, double t, tpcap_dir dir, const std::string &from, const std::string &to,
               const tovrin_hdr_t &h, std::span<const uint8_t> p, std::string &what) {
    uint8_t num = data_num(dir, h);
    what = data_what(h, num);
    ++d.st.fragments;
    tpcap_flow &fl = d.flows[from + ">" + to];
    track_tx(d, fl.tx, h, p, num);
    bool retx = (h.flags & TOVRIN_F_RETX) != 0;
    auto it = fl.asms.find(num);
    if (h.frag == 0 && retx) {
        ++d.st.retransmissions;
        if (it != fl.asms.end() && it->second.complete) {
            ++d.messages[it->second.msg].transmissions;
            return;  // the whole message was seen before
        }
    }
    if (h.frag == 0 && !retx) {
        fl.asms[num] = tpcap_asm{};  // a new message under this number
        it = fl.asms.find(num);
    }
    if (it == fl.asms.end()) it = fl.asms.emplace(num, tpcap_asm{}).first;
    tpcap_asm &a = it->second;
    if (a.complete) return;  // a later fragment of a message already complete
    if (h.frag == 0) ++a.firsts;
    a.parts[h.frag].assign(p.begin(), p.end());
    if (!(h.flags & TOVRIN_F_MORE_FRAGS)) a.last = h.frag;
    if (a.last < 0) return;
    for (int k = 0; k <= a.last; ++k)
        if (a.parts.find(k) == a.parts.end()) return;
    complete(d, a, dir, from, to, t, h, num);
    const tpcap_msg &m = d.messages.back();
    what += ", message of " + std::to_string(m.size) + " bytes complete";
}

void feed_ack(tpcap_decoder &d, tpcap_dir dir, const std::string &from, const std::string &to, const tovrin_hdr_t &h,
              std::string &what) {
    uint8_t num = ack_num(dir, h);
    ++d.st.acks;
    bool repeated = (h.flags & TOVRIN_F_RETX) != 0;
    if (repeated) ++d.st.acks_repeated;
    what = std::string(repeated ? "ACK repeated" : "ACK") + " of message " + std::to_string(num) + " last frag " +
           std::to_string(h.frag);
    auto fl = d.flows.find(to + ">" + from);
    if (fl != d.flows.end()) {
        auto a = fl->second.asms.find(num);
        if (a != fl->second.asms.end() && a->second.complete) {
            d.messages[a->second.msg].acked = true;
            return;
        }
    }
    ++d.st.acks_unmatched;
    what += " (no such message seen)";
}

std::string ctrl_what(tpcap_dir dir, std::span<const uint8_t> p) {
    if (p.size() < TOVRIN_CTRL_HDR_LEN) return "CTRL without header";
    uint8_t type = p[0];
    uint16_t len = tovrin_load16(&p[2]);
    if (type == TOVRIN_CTRL_DRAVIP) {
        if (len < TOVRIN_DRAVIP_LEN || p.size() < TOVRIN_DRAVIP_LEN) return "DRAVIP too short";
        return "DRAVIP addr=" + tpcap_fmt_ip(tovrin_load32(&p[8]));
    }
    if (type != TOVRIN_CTRL_REGISTER && type != TOVRIN_CTRL_KEEPALIVE) {
        char b[48];
        std::snprintf(b, sizeof b, "CTRL unknown type 0x%02x", type);
        return b;
    }
    if (dir == tpcap_dir::up) {
        dsim_ap_req r;
        std::string why = dsim_req_decode(p, r);
        if (!why.empty()) return std::string(type == TOVRIN_CTRL_REGISTER ? "REG-REQ" : "KA-REQ") + " bad: " + why;
        return dsim_fmt_req(r);
    }
    std::string s = type == TOVRIN_CTRL_REGISTER ? "REG-RESP" : "KA-RESP";
    return s + " len=" + std::to_string(len);
}

}  // namespace

void tpcap_feed_udp(tpcap_decoder &d, double t, const tpcap_udp &u) {
    std::string from = tpcap_fmt_endpoint(u.src_ip, u.src_port);
    std::string to = tpcap_fmt_endpoint(u.dst_ip, u.dst_port);
    ++d.st.datagrams;
    tpcap_dgram g;
    g.time = t;
    g.from = from;
    g.to = to;
    dsim_frame f;
    std::string why = dsim_frame_check(u.payload, f);
    if (!why.empty()) {
        ++d.st.malformed;
        g.dir = known_direction(d, from, to);
        g.what = "malformed: " + why;
    } else {
        g.ok = true;
        g.hdr = f.hdr;
        g.dir = direction(d, from, to, f.hdr);
        if (f.hdr.flags & TOVRIN_F_CTRL) {
            ++d.st.ctrl;
            g.what = ctrl_what(g.dir, f.payload);
        } else if (f.hdr.flags & TOVRIN_F_ACK) {
            feed_ack(d, g.dir, from, to, f.hdr, g.what);
        } else {
            feed_data(d, t, g.dir, from, to, f.hdr, f.payload, g.what);
        }
    }
    if (d.keep_dgrams) d.dgrams.push_back(std::move(g));
}

void tpcap_feed_frame(tpcap_decoder &d, int dlt, int64_t usec, std::span<const uint8_t> frame) {
    ++d.st.frames;
    if (d.t0 < 0) d.t0 = usec;
    tpcap_udp u;
    std::string why;
    tpcap_link_status s = tpcap_decode_frame(dlt, frame, u, why);
    double t = static_cast<double>(usec - d.t0) / 1e6;
    if (s == tpcap_link_status::other) {
        ++d.st.other;
        return;
    }
    if (s == tpcap_link_status::bad) {
        ++d.st.bad_frames;
        if (d.keep_dgrams) {
            tpcap_dgram g;
            g.time = t;
            g.what = "frame " + std::to_string(d.st.frames) + " malformed: " + why;
            d.dgrams.push_back(std::move(g));
        }
        return;
    }
    if (u.src_port != d.port && u.dst_port != d.port) {
        ++d.st.other;
        return;
    }
    tpcap_feed_udp(d, t, u);
}

void tpcap_finish(tpcap_decoder &d) {
    for (auto &[name, fl] : d.flows) {
        close_tx(d, fl.tx);
        for (auto &[num, a] : fl.asms)
            if (!a.complete) ++d.st.incomplete;
    }
    tpcap_stats &s = d.st;
    for (const tpcap_msg &m : d.messages) {
        ++s.messages;
        if (m.dir == tpcap_dir::up) ++s.up;
        if (m.dir == tpcap_dir::down) ++s.down;
        if (m.ack_req && !m.acked) ++s.acks_missing;
        if (m.too_big || (m.opened.status == dsim_open_status::bad)) {
            ++s.bad_msgs;
            continue;
        }
        if (!m.opened.enc) {
            ++s.plain;
            continue;
        }
        ++s.enc;
        if (m.opened.status == dsim_open_status::ok)
            ++s.md5_ok;
        else if (m.opened.status == dsim_open_status::md5_bad)
            ++s.md5_bad;
        else
            ++s.unchecked;
    }
}
