#include "packets.h"

#include <algorithm>

#include "link/cipher.h"

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

std::vector<uint8_t> ack_for(uint8_t ap_trans, uint8_t frag) { return frame(TOVRIN_F_ACK, frag, 0, ap_trans, {}); }

std::vector<uint8_t> plain_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data) {
    std::vector<uint8_t> p(TOVRIN_PLAIN_HDR_LEN);
    p[0] = TOVRIN_DATA_PLAIN;
    tovrin_store16(&p[2], static_cast<uint16_t>(p.size() + data.size()));
    tovrin_store32(&p[4], static_cast<uint32_t>(src));
    tovrin_store32(&p[8], static_cast<uint32_t>(dst));
    p.insert(p.end(), data.begin(), data.end());
    return p;
}

std::vector<uint8_t> enc_payload(int32_t src, int32_t dst, const std::vector<uint8_t> &data,
                                 const std::vector<uint8_t> &key, const std::vector<uint8_t> &iv) {
    const std::size_t len = TOVRIN_ENC_HDR_LEN + data.size();
    const std::size_t pad = (16 - len % 16) % 16;
    std::vector<uint8_t> p(TOVRIN_ENC_HDR_LEN);
    p[0] = TOVRIN_DATA_ENC;
    tovrin_store16(&p[2], static_cast<uint16_t>(len + pad));
    tovrin_store32(&p[4], static_cast<uint32_t>(src));
    tovrin_store32(&p[8], static_cast<uint32_t>(dst));
    tovrin_store32(&p[12], static_cast<uint32_t>(pad));
    std::copy_n(iv.begin(), std::min<std::size_t>(iv.size(), TOVRIN_IV_LEN), p.begin() + TOVRIN_DOFF_IV);
    std::vector<uint8_t> body(data);
    body.resize(data.size() + pad, 0);
    if (!tovrin_md5(body.data(), body.size(), &p[TOVRIN_DOFF_MD5])) return {};
    std::vector<uint8_t> ct(body.size());
    if (!body.empty() &&
        !tovrin_aes_cbc(true, body.data(), ct.data(), body.size(), key.data(), key.size(), &p[TOVRIN_DOFF_IV]))
        return {};
    p.insert(p.end(), ct.begin(), ct.end());
    return p;
}

std::vector<std::vector<uint8_t>> fragments(const std::vector<uint8_t> &payload, uint8_t ctlr_trans,
                                            uint8_t extra_flags) {
    std::vector<std::vector<uint8_t>> out;
    std::size_t off = 0;
    uint8_t n = 0;
    do {
        const std::size_t size = std::min<std::size_t>(TOVRIN_FRAG_SIZE, payload.size() - off);
        const bool more = off + size < payload.size();
        std::vector<uint8_t> part(payload.begin() + static_cast<long>(off),
                                  payload.begin() + static_cast<long>(off + size));
        const uint8_t flags = TOVRIN_F_DATA | TOVRIN_F_ACK_REQ | extra_flags | (more ? TOVRIN_F_MORE_FRAGS : 0);
        out.push_back(frame(flags, n++, ctlr_trans, 0, part));
        off += size;
    } while (off < payload.size());
    return out;
}
