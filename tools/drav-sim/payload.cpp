#include "tools/drav-sim/payload.h"

#include <algorithm>
#include <cstring>

#include "link/cipher.h"

namespace {

void put_inner(uint8_t *p, uint8_t type, std::size_t len, uint32_t src, uint32_t dst) {
    p[0] = type;
    p[1] = 0;
    tovrin_store16(&p[TOVRIN_DOFF_LEN], static_cast<uint16_t>(len));
    tovrin_store32(&p[TOVRIN_DOFF_SRC], src);
    tovrin_store32(&p[TOVRIN_DOFF_DST], dst);
}

bool key_ok(std::size_t n) { return n == 16 || n == 24 || n == 32; }

}  // namespace

std::string dsim_payload_plain(uint32_t src, uint32_t dst, std::span<const uint8_t> data, dsim_bytes &out) {
    if (data.size() > TOVRIN_MAX_PLAIN_DATA)
        return "plain data of " + std::to_string(data.size()) + " bytes exceeds 16372";
    out.assign(TOVRIN_PLAIN_HDR_LEN + data.size(), 0);
    put_inner(out.data(), TOVRIN_DATA_PLAIN, out.size(), src, dst);
    std::copy(data.begin(), data.end(), out.begin() + TOVRIN_PLAIN_HDR_LEN);
    return "";
}

std::string dsim_payload_enc(uint32_t src, uint32_t dst, std::span<const uint8_t> data, std::span<const uint8_t> key,
                             const dsim_iv &iv, dsim_bytes &out) {
    if (data.size() > TOVRIN_MAX_ENC_DATA)
        return "encrypted data of " + std::to_string(data.size()) + " bytes exceeds 16336";
    if (!key_ok(key.size())) return key.empty() ? "no key set" : "key is not 16, 24 or 32 bytes";
    std::size_t body = (data.size() + TOVRIN_AES_BLOCK - 1) / TOVRIN_AES_BLOCK * TOVRIN_AES_BLOCK;
    uint32_t pad = static_cast<uint32_t>(body - data.size());
    dsim_bytes plain(body, 0);  // data followed by zero pad
    std::copy(data.begin(), data.end(), plain.begin());

    out.assign(TOVRIN_ENC_HDR_LEN + body, 0);
    put_inner(out.data(), TOVRIN_DATA_ENC, out.size(), src, dst);
    tovrin_store32(&out[TOVRIN_DOFF_PAD], pad);
    std::copy(iv.begin(), iv.end(), out.begin() + TOVRIN_DOFF_IV);
    if (!tovrin_md5(plain.data(), plain.size(), &out[TOVRIN_DOFF_MD5])) return "digest failed";
    if (!tovrin_aes_cbc(true, plain.data(), out.data() + TOVRIN_ENC_HDR_LEN, body, key.data(), key.size(), iv.data()))
        return "encryption failed";
    return "";
}

std::size_t dsim_frag_count(std::size_t len) { return len == 0 ? 1 : (len + TOVRIN_FRAG_SIZE - 1) / TOVRIN_FRAG_SIZE; }

std::vector<dsim_bytes> dsim_fragment(std::span<const uint8_t> payload, uint8_t ctlr_trans, uint8_t ap_trans,
                                      bool retx) {
    std::size_t n = dsim_frag_count(payload.size());
    std::vector<dsim_bytes> frames;
    frames.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t off = i * TOVRIN_FRAG_SIZE;
        std::size_t size = std::min(TOVRIN_FRAG_SIZE, payload.size() - off);
        tovrin_hdr_t h = tovrin_hdr_make(DSIM_DATA_FLAGS);
        if (retx) h.flags |= TOVRIN_F_RETX;
        if (i + 1 < n) h.flags |= TOVRIN_F_MORE_FRAGS;
        h.data_len = static_cast<uint16_t>(size);
        h.frag = static_cast<uint8_t>(i);
        h.ctlr_trans = ctlr_trans;
        h.ap_trans = ap_trans;
        dsim_bytes d(TOVRIN_HDR_LEN + size);
        tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
        std::copy_n(payload.begin() + static_cast<std::ptrdiff_t>(off), size, d.begin() + TOVRIN_HDR_LEN);
        frames.push_back(std::move(d));
    }
    return frames;
}

dsim_opened dsim_payload_open(std::span<const uint8_t> p, std::span<const uint8_t> key) {
    dsim_opened r;
    if (p.size() < 4) {
        r.problem = "message of " + std::to_string(p.size()) + " bytes";
        return r;
    }
    std::size_t field = tovrin_load16(&p[TOVRIN_DOFF_LEN]);
    if (field != p.size()) {
        r.problem = "length field " + std::to_string(field) + " but " + std::to_string(p.size()) + " bytes";
        return r;
    }
    uint8_t type = p[0];
    if (type != TOVRIN_DATA_PLAIN && type != TOVRIN_DATA_ENC) {
        char t[8];
        std::snprintf(t, sizeof t, "0x%02x", type);
        r.problem = std::string("unknown data type ") + t;
        return r;
    }
    r.enc = type == TOVRIN_DATA_ENC;
    std::size_t hdr = r.enc ? TOVRIN_ENC_HDR_LEN : TOVRIN_PLAIN_HDR_LEN;
    if (p.size() < hdr) {
        r.problem = "message of " + std::to_string(p.size()) + " bytes, header needs " + std::to_string(hdr);
        return r;
    }
    r.src = tovrin_load32(&p[TOVRIN_DOFF_SRC]);
    r.dst = tovrin_load32(&p[TOVRIN_DOFF_DST]);
    if (!r.enc) {
        r.len = p.size() - hdr;
        r.data.assign(p.begin() + static_cast<std::ptrdiff_t>(hdr), p.end());
        r.status = dsim_open_status::ok;
        return r;
    }
    std::size_t body = p.size() - hdr;
    uint32_t pad = tovrin_load32(&p[TOVRIN_DOFF_PAD]);
    if (body % TOVRIN_AES_BLOCK != 0) {
        r.problem = "encrypted part of " + std::to_string(body) + " bytes";
        return r;
    }
    if (pad > body || pad >= TOVRIN_AES_BLOCK) {
        r.problem = "pad " + std::to_string(pad) + " for " + std::to_string(body) + " bytes";
        return r;
    }
    r.len = body - pad;
    if (!key_ok(key.size())) {
        r.status = dsim_open_status::no_key;
        return r;
    }
    dsim_bytes plain(body);
    uint8_t digest[TOVRIN_MD5_LEN];
    if (!tovrin_aes_cbc(false, p.data() + hdr, plain.data(), body, key.data(), key.size(), &p[TOVRIN_DOFF_IV])) {
        r.problem = "decryption failed";
        return r;
    }
    if (!tovrin_md5(plain.data(), plain.size(), digest)) {
        r.problem = "digest failed";
        return r;
    }
    if (std::memcmp(digest, &p[TOVRIN_DOFF_MD5], TOVRIN_MD5_LEN) != 0) {
        r.status = dsim_open_status::md5_bad;
        return r;
    }
    plain.resize(r.len);
    r.data = std::move(plain);
    r.status = dsim_open_status::ok;
    return r;
}
