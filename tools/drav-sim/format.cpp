#include "tools/drav-sim/format.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

std::string dsim_fmt_hdr(const tovrin_hdr_t &h) {
    char b[96];
    std::snprintf(b, sizeof b, "flags=0x%02x frag=%u ctlr_trans=%u ap_trans=%u data_len=%u", h.flags, h.frag,
                  h.ctlr_trans, h.ap_trans, h.data_len);
    return b;
}

std::string dsim_fmt_cstr(std::span<const uint8_t> b) {
    std::string s;
    for (uint8_t c : b) {
        if (c == 0) break;
        if (c > 0x20 && c < 0x7f && c != '\\' && c != '"') {
            s += static_cast<char>(c);
        } else {
            char e[8];
            std::snprintf(e, sizeof e, "\\x%02x", c);
            s += e;
        }
    }
    return s;
}

std::string dsim_fmt_mac(std::span<const uint8_t, 6> m) {
    char b[24];
    std::snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

std::string dsim_fmt_req(const dsim_ap_req &r) {
    std::string s = r.type == TOVRIN_CTRL_REGISTER ? "REG-REQ" : "KA-REQ";
    s += " serial=" + dsim_fmt_cstr(r.serial) + " mac=" + dsim_fmt_mac(r.mac) + " uptime=" + std::to_string(r.uptime);
    if (r.type == TOVRIN_CTRL_REGISTER) s += " name=" + dsim_fmt_cstr(r.name);
    s += " ka_rate=" + std::to_string(r.ka_rate);
    return s;
}

namespace {

bool is_text(std::span<const uint8_t> b) {
    for (uint8_t c : b)
        if (!((c >= 0x20 && c < 0x7f) || c == '\n' || c == '\r' || c == '\t')) return false;
    return true;
}

}  // namespace

std::string dsim_fmt_data(std::span<const uint8_t> b) {
    std::span<const uint8_t> shown = b.first(std::min(b.size(), DSIM_DATA_SHOWN));
    std::string s;
    if (is_text(b)) {
        s = "\"";
        for (uint8_t c : shown) {
            switch (c) {
            case '\\': s += "\\\\"; break;
            case '"': s += "\\\""; break;
            case '\n': s += "\\n"; break;
            case '\r': s += "\\r"; break;
            case '\t': s += "\\t"; break;
            default: s += static_cast<char>(c);
            }
        }
        s += "\"";
    } else {
        s = "hex:";
        char e[4];
        for (uint8_t c : shown) {
            std::snprintf(e, sizeof e, "%02x", c);
            s += e;
        }
    }
    if (shown.size() < b.size()) s += "...";
    return s;
}

std::string dsim_fmt_addr(const sockaddr_in &a) {
    char ip[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(a.sin_port));
}

bool dsim_parse_hex(const std::string &s, dsim_bytes &out) {
    if (s.size() % 2 != 0) return false;
    dsim_bytes b;
    for (std::size_t i = 0; i < s.size(); i += 2) {
        int v = 0;
        for (std::size_t k = i; k < i + 2; ++k) {
            char c = s[k];
            int d = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
            if (d < 0) return false;
            v = v * 16 + d;
        }
        b.push_back(static_cast<uint8_t>(v));
    }
    out = std::move(b);
    return true;
}
