#include "tools/drav-sim/codec.h"

#include <algorithm>
#include <cstring>

std::string dsim_frame_check(std::span<const uint8_t> dgram, dsim_frame &out) {
    if (dgram.size() < TOVRIN_HDR_LEN) return "short datagram " + std::to_string(dgram.size()) + " bytes";
    tovrin_hdr_t h = tovrin_hdr_decode(dgram.first<TOVRIN_HDR_LEN>());
    if (h.hdr_len != TOVRIN_HDR_LEN) return "hdr_len " + std::to_string(h.hdr_len) + " not 12";
    std::size_t avail = dgram.size() - TOVRIN_HDR_LEN;
    if (avail != h.data_len)
        return "data_len " + std::to_string(h.data_len) + " but " + std::to_string(avail) + " payload bytes";
    if (h.data_len > TOVRIN_FRAG_SIZE) return "data_len " + std::to_string(h.data_len) + " above 1024";
    if (h.version != TOVRIN_VERSION) return "version " + std::to_string(h.version);
    if (h.magic != TOVRIN_MAGIC) {
        char m[16];
        std::snprintf(m, sizeof m, "0x%08x", h.magic);
        return std::string("magic ") + m;
    }
    out.hdr = h;
    out.payload = dgram.subspan(TOVRIN_HDR_LEN, h.data_len);
    return "";
}

std::string dsim_req_decode(std::span<const uint8_t> p, dsim_ap_req &out) {
    if (p.size() < TOVRIN_CTRL_HDR_LEN) return "control payload of " + std::to_string(p.size()) + " bytes";
    out = dsim_ap_req{};
    out.type = p[0];
    out.len = tovrin_load16(&p[2]);
    std::size_t min = 0;
    if (out.type == TOVRIN_CTRL_REGISTER)
        min = TOVRIN_REG_LEN;
    else if (out.type == TOVRIN_CTRL_KEEPALIVE)
        min = TOVRIN_KA_LEN;
    else
        return "not a request";
    if (out.len < min) return "length field " + std::to_string(out.len) + " below " + std::to_string(min);
    // The fields read below must lie inside what was received.
    if (p.size() < out.len)
        return "length field " + std::to_string(out.len) + " beyond " + std::to_string(p.size()) + " bytes received";
    std::memcpy(out.serial.data(), &p[4], 16);
    out.uptime = tovrin_load32(&p[20]);
    std::memcpy(out.mac.data(), &p[24], 6);
    if (out.type == TOVRIN_CTRL_REGISTER) {
        out.name_len = p[31];
        std::memcpy(out.name.data(), &p[32], 64);
        out.ka_rate = tovrin_load32(&p[96]);
    } else {
        out.ka_rate = tovrin_load32(&p[32]);
    }
    return "";
}

namespace {

dsim_bytes ctrl_dgram(uint8_t type, uint16_t len, std::span<const uint8_t> body) {
    dsim_bytes d(TOVRIN_HDR_LEN + len, 0);
    tovrin_hdr_t h = tovrin_hdr_make(DSIM_CTRL_FLAGS);
    h.data_len = len;
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
    uint8_t *p = d.data() + TOVRIN_HDR_LEN;
    p[0] = type;
    tovrin_store16(&p[2], len);
    std::size_t n = std::min<std::size_t>(body.size(), len - TOVRIN_CTRL_HDR_LEN);
    std::copy_n(body.begin(), n, p + TOVRIN_CTRL_HDR_LEN);
    return d;
}

std::span<const uint8_t> after_ctrl_hdr(std::span<const uint8_t> p) {
    return p.size() > TOVRIN_CTRL_HDR_LEN ? p.subspan(TOVRIN_CTRL_HDR_LEN) : std::span<const uint8_t>{};
}

}  // namespace

dsim_bytes dsim_build_reg_resp(std::span<const uint8_t> req_payload) {
    return ctrl_dgram(TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN, after_ctrl_hdr(req_payload));
}

dsim_bytes dsim_build_ka_resp(std::span<const uint8_t> req_payload) {
    return ctrl_dgram(TOVRIN_CTRL_KEEPALIVE, TOVRIN_KA_LEN, after_ctrl_hdr(req_payload));
}

dsim_bytes dsim_build_dravip(uint32_t addr_net) {
    std::array<uint8_t, 8> body{};
    std::memcpy(&body[4], &addr_net, 4);  // network order is memory order
    return ctrl_dgram(TOVRIN_CTRL_DRAVIP, TOVRIN_DRAVIP_LEN, body);
}

dsim_bytes dsim_build_ack(uint8_t flags, uint8_t frag, uint8_t ap_trans) {
    dsim_bytes d(TOVRIN_HDR_LEN);
    tovrin_hdr_t h = tovrin_hdr_make(flags);
    h.frag = frag;
    h.ap_trans = ap_trans;
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
    return d;
}
