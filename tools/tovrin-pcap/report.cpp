#include "tools/tovrin-pcap/report.h"

#include "tools/drav-sim/format.h"

namespace {

std::string fmt_time(double t) {
    char b[32];
    std::snprintf(b, sizeof b, "%.6f", t);
    return b;
}

bool printable(std::span<const uint8_t> b) {
    for (uint8_t c : b)
        if (!((c >= 0x20 && c < 0x7f) || c == '\n' || c == '\r' || c == '\t')) return false;
    return true;
}

std::string hex(std::span<const uint8_t> b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t c : b) {
        s += digits[c >> 4];
        s += digits[c & 15];
    }
    return s;
}

const char *md5_word(const tpcap_msg &m) {
    if (!m.opened.enc) return nullptr;
    switch (m.opened.status) {
    case dsim_open_status::ok: return "ok";
    case dsim_open_status::md5_bad: return "bad";
    case dsim_open_status::no_key: return "unchecked";
    case dsim_open_status::bad: return nullptr;
    }
    return nullptr;
}

const char *type_word(const tpcap_msg &m) {
    if (m.opened.status == dsim_open_status::bad && !m.opened.enc) return "bad";
    return m.opened.enc ? "enc" : "plain";
}

// Data shown whole with --full; else as drav-sim shows it, cut at 64 bytes.
std::string text_data(const dsim_bytes &b, bool full) {
    if (!full) return dsim_fmt_data(b);
    // The same escapes as drav-sim's form, without the cut.
    return printable(b) ? tpcap_json_str(std::string(b.begin(), b.end())) : "hex:" + hex(b);
}

}  // namespace

std::string tpcap_json_str(const std::string &s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': o += "\\\""; break;
        case '\\': o += "\\\\"; break;
        case '\n': o += "\\n"; break;
        case '\r': o += "\\r"; break;
        case '\t': o += "\\t"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char e[8];
                std::snprintf(e, sizeof e, "\\u%04x", c);
                o += e;
            } else {
                o += static_cast<char>(c);
            }
        }
    }
    return o + "\"";
}

std::string tpcap_fmt_msg(const tpcap_msg &m, const tpcap_report_opts &o) {
    const dsim_opened &op = m.opened;
    // A bad message shows the fields that were read before its problem was found.
    bool has_eps = op.status != dsim_open_status::bad || (op.enc && m.size >= TOVRIN_ENC_HDR_LEN);
    bool has_len = op.status != dsim_open_status::bad;
    bool has_data = op.status == dsim_open_status::ok;
    const char *md5 = md5_word(m);
    std::string problem = m.too_big || op.status == dsim_open_status::bad ? op.problem : "";
    if (o.json) {
        std::string s = "{\"kind\":\"msg\",\"time\":" + fmt_time(m.time) +
                        ",\"dir\":" + tpcap_json_str(tpcap_dir_name(m.dir)) + ",\"from\":" + tpcap_json_str(m.from) +
                        ",\"to\":" + tpcap_json_str(m.to) + ",\"ap_trans\":" + std::to_string(m.ap_trans) +
                        ",\"ctlr_trans\":" + std::to_string(m.ctlr_trans) + ",\"type\":\"" + type_word(m) + "\"";
        if (has_eps) s += ",\"src\":" + std::to_string(op.src) + ",\"dst\":" + std::to_string(op.dst);
        s += ",\"size\":" + std::to_string(m.size) + ",\"frags\":" + std::to_string(m.frags) +
             ",\"transmissions\":" + std::to_string(m.transmissions);
        if (has_len) s += ",\"len\":" + std::to_string(op.len);
        if (md5) s += std::string(",\"md5\":\"") + md5 + "\"";
        s += std::string(",\"ack_req\":") + (m.ack_req ? "true" : "false") +
             ",\"acked\":" + (m.acked ? "true" : "false");
        if (has_data) {
            if (printable(op.data))
                s += ",\"data\":" + tpcap_json_str(std::string(op.data.begin(), op.data.end()));
            else
                s += ",\"data_hex\":\"" + hex(op.data) + "\"";
        }
        if (!problem.empty()) s += ",\"problem\":" + tpcap_json_str(problem);
        return s + "}";
    }
    std::string s = fmt_time(m.time) + " " + tpcap_dir_name(m.dir) + " msg ap_trans=" + std::to_string(m.ap_trans) +
                    " ctlr_trans=" + std::to_string(m.ctlr_trans);
    if (has_eps) s += " src=" + std::to_string(op.src) + " dst=" + std::to_string(op.dst);
    s += std::string(" ") + type_word(m) + " size=" + std::to_string(m.size);
    if (has_len) s += " len=" + std::to_string(op.len);
    if (m.frags > 1) s += " frags=" + std::to_string(m.frags);
    if (m.transmissions > 1) s += " transmissions=" + std::to_string(m.transmissions);
    if (md5) s += std::string(" md5=") + md5;
    if (m.ack_req) s += m.acked ? " acked" : " unacked";
    if (!problem.empty()) s += " bad=" + tpcap_json_str(problem);
    if (has_data) s += " data=" + text_data(op.data, o.full);
    return s;
}

std::string tpcap_fmt_dgram(const tpcap_dgram &g, const tpcap_report_opts &o) {
    std::string hdr = g.ok ? dsim_fmt_hdr(g.hdr) : "";
    if (o.json) {
        std::string s = "{\"kind\":\"dgram\",\"time\":" + fmt_time(g.time) +
                        ",\"dir\":" + tpcap_json_str(tpcap_dir_name(g.dir)) + ",\"from\":" + tpcap_json_str(g.from) +
                        ",\"to\":" + tpcap_json_str(g.to);
        if (g.ok)
            s += ",\"flags\":" + std::to_string(g.hdr.flags) + ",\"frag\":" + std::to_string(g.hdr.frag) +
                 ",\"ctlr_trans\":" + std::to_string(g.hdr.ctlr_trans) +
                 ",\"ap_trans\":" + std::to_string(g.hdr.ap_trans) + ",\"data_len\":" + std::to_string(g.hdr.data_len);
        return s + ",\"what\":" + tpcap_json_str(g.what) + "}";
    }
    std::string s = fmt_time(g.time) + " " + tpcap_dir_name(g.dir) + " dgram";
    if (!g.from.empty()) s += " " + g.from + ">" + g.to;
    if (g.ok) s += " " + hdr;
    return s + " " + g.what;
}

std::string tpcap_fmt_summary(const tpcap_stats &s, const tpcap_report_opts &o) {
    const std::pair<const char *, long> counts[] = {
        {"messages", s.messages},
        {"up", s.up},
        {"down", s.down},
        {"plain", s.plain},
        {"enc", s.enc},
        {"md5_ok", s.md5_ok},
        {"md5_bad", s.md5_bad},
        {"unchecked", s.unchecked},
        {"bad", s.bad_msgs},
        {"retransmissions", s.retransmissions},
        {"acks_missing", s.acks_missing},
        {"frags_lost", s.frags_lost},
        {"incomplete", s.incomplete},
        {"datagrams", s.datagrams},
        {"malformed", s.malformed},
        {"ctrl", s.ctrl},
        {"acks", s.acks},
        {"acks_repeated", s.acks_repeated},
        {"acks_unmatched", s.acks_unmatched},
        {"frames", s.frames},
        {"bad_frames", s.bad_frames},
        {"other_frames", s.other},
    };
    std::string out = o.json ? "{\"kind\":\"summary\"" : "# summary";
    for (const auto &[name, v] : counts) {
        if (o.json)
            out += std::string(",\"") + name + "\":" + std::to_string(v);
        else
            out += std::string(" ") + name + "=" + std::to_string(v);
    }
    return o.json ? out + "}" : out;
}
