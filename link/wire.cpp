#include "link/wire.h"

tovrin_hdr_t tovrin_hdr_make(uint8_t flags) {
    tovrin_hdr_t h{};
    h.version = TOVRIN_VERSION;
    h.hdr_len = TOVRIN_HDR_LEN;
    h.magic = TOVRIN_MAGIC;
    h.flags = flags;
    return h;
}

void tovrin_hdr_encode(const tovrin_hdr_t &h, std::span<uint8_t, TOVRIN_HDR_LEN> out) {
    out[0] = h.version;
    out[1] = h.hdr_len;
    tovrin_store16(&out[2], h.data_len);
    tovrin_store32(&out[4], h.magic);
    out[8] = h.flags;
    out[9] = h.frag;
    out[10] = h.ctlr_trans;
    out[11] = h.ap_trans;
}

tovrin_hdr_t tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN> in) {
    tovrin_hdr_t h{};
    h.version = in[0];
    h.hdr_len = in[1];
    h.data_len = tovrin_load16(&in[2]);
    h.magic = tovrin_load32(&in[4]);
    h.flags = in[8];
    h.frag = in[9];
    h.ctlr_trans = in[10];
    h.ap_trans = in[11];
    return h;
}
