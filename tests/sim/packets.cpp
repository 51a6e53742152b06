#include "packets.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/payload.h"

std::vector<uint8_t> frame(uint8_t flags, uint8_t frag, uint8_t ctlr_trans, uint8_t ap_trans,
                           const std::vector<uint8_t> &payload) {
    std::vector<uint8_t> d(TOVRIN_HDR_LEN);
    tovrin_hdr_t h = tovrin_hdr_make(flags);
    h.frag = frag;
    h.ctlr_trans = ctlr_trans;
    h.ap_trans = ap_trans;
    h.data_len = static_cast<uint16_t>(payload.size());
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
    d.insert(d.end(), payload.begin(), payload.end());
    return d;
}

std::vector<uint8_t> ctrl_packet(uint8_t type, uint16_t len_field, std::size_t size, uint8_t frame_flags) {
    std::vector<uint8_t> p(std::max<std::size_t>(size, TOVRIN_CTRL_HDR_LEN), 0);
    p[0] = type;
    tovrin_store16(&p[2], len_field);
    p.resize(size);
    return frame(frame_flags, 0, 0, 0, p);
}

std::vector<uint8_t> ack_for(uint8_t ap_trans, uint8_t frag) { return dsim_build_ack(TOVRIN_F_ACK, frag, ap_trans); }

std::vector<uint8_t> plain_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data) {
    std::vector<uint8_t> p;
    const std::string why = dsim_payload_plain(static_cast<uint32_t>(src), static_cast<uint32_t>(dst), data, p);
    if (!why.empty()) std::fprintf(stderr, "plain_payload: %s\n", why.c_str()), std::abort();  // a caller's mistake
    return p;
}

std::vector<uint8_t> enc_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data,
                                 const std::vector<uint8_t> &key, const std::vector<uint8_t> &iv) {
    dsim_iv first{};
    std::copy_n(iv.begin(), std::min<std::size_t>(iv.size(), TOVRIN_IV_LEN), first.begin());
    std::vector<uint8_t> p;
    if (!dsim_payload_enc(static_cast<uint32_t>(src), static_cast<uint32_t>(dst), data, key, first, p).empty())
        return {};
    return p;
}

std::vector<std::vector<uint8_t>> fragments(const std::vector<uint8_t> &payload, uint8_t ctlr_trans, bool retx) {
    return dsim_fragment(payload, ctlr_trans, 0, retx);
}
