#include "controller.h"

#include <algorithm>
#include <stdexcept>

#include "link/cipher.h"
#include "link/wire.h"

namespace simulate {

namespace {

std::vector<uint8_t> frame(uint8_t flags, uint8_t frag, uint8_t ctlr_trans, uint8_t ap_trans,
                           const uint8_t *payload, std::size_t n) {
    std::vector<uint8_t> d(TOVRIN_HDR_LEN);
    tovrin_hdr_t h = tovrin_hdr_make(flags);
    h.frag = frag;
    h.ctlr_trans = ctlr_trans;
    h.ap_trans = ap_trans;
    h.data_len = static_cast<uint16_t>(n);
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
    d.insert(d.end(), payload, payload + n);
    return d;
}

std::vector<uint8_t> ctrl_answer(uint8_t type, uint16_t len) {
    std::vector<uint8_t> p(len, 0);
    p[0] = type;
    tovrin_store16(&p[2], len);
    return frame(TOVRIN_F_CTRL | TOVRIN_F_DATA, 0, 0, 0, p.data(), p.size());
}

}  // namespace

void Controller::restart_at(uint32_t new_ip, uint8_t first_trans) {
    ip = new_ip;
    cur_.reset();
    next_trans_ = first_trans == 0 ? 1 : first_trans;
    rx_.clear();
    rx_next_frag_ = -1;
    rx_trans_ = -1;
}

void Controller::queue_msg(int32_t src, int32_t dst, std::vector<uint8_t> data, bool encrypt) {
    const uint64_t serial = next_serial_++;
    data.resize(std::max<std::size_t>(data.size(), 8));
    for (int i = 0; i < 8; ++i) data[static_cast<std::size_t>(i)] = static_cast<uint8_t>(serial >> (8 * i));
    std::vector<uint8_t> p;
    if (encrypt) {
        const std::size_t len = TOVRIN_ENC_HDR_LEN + data.size();
        const std::size_t pad = (16 - len % 16) % 16;
        p.assign(TOVRIN_ENC_HDR_LEN, 0);
        p[0] = TOVRIN_DATA_ENC;
        tovrin_store16(&p[2], static_cast<uint16_t>(len + pad));
        tovrin_store32(&p[12], static_cast<uint32_t>(pad));
        // The IV names the message, so its fragments can be told apart on the wire.
        for (int i = 0; i < 16; ++i) p[16 + static_cast<std::size_t>(i)] = static_cast<uint8_t>(serial >> (8 * (i % 8)));
        std::vector<uint8_t> body(data);
        body.resize(data.size() + pad, 0);
        if (!tovrin_md5(body.data(), body.size(), &p[32])) throw std::runtime_error("controller cannot digest");
        std::vector<uint8_t> ct(body.size());
        if (!tovrin_aes_cbc(true, body.data(), ct.data(), body.size(), key_.data(), key_.size(), &p[16]))
            throw std::runtime_error("controller cannot encrypt");
        p.insert(p.end(), ct.begin(), ct.end());
    } else {
        p.assign(TOVRIN_PLAIN_HDR_LEN, 0);
        p[0] = TOVRIN_DATA_PLAIN;
        tovrin_store16(&p[2], static_cast<uint16_t>(TOVRIN_PLAIN_HDR_LEN + data.size()));
        p.insert(p.end(), data.begin(), data.end());
    }
    tovrin_store32(&p[4], static_cast<uint32_t>(src));
    tovrin_store32(&p[8], static_cast<uint32_t>(dst));
    by_head[std::vector<uint8_t>(p.begin(), p.begin() + static_cast<long>(std::min<std::size_t>(p.size(), 48)))] = serial;
    sent[serial] = CtrlMsg{serial, src, dst, std::move(data)};
    queue_.push_back(Out{serial, std::move(p)});
}

void Controller::transmit(uint64_t now_us) {
    Out &o = *cur_;
    const uint8_t retx = o.attempts > 0 ? TOVRIN_F_RETX : 0;
    std::size_t off = 0;
    uint8_t n = 0;
    do {
        const std::size_t size = std::min<std::size_t>(TOVRIN_FRAG_SIZE, o.payload.size() - off);
        const bool more = off + size < o.payload.size();
        const uint8_t flags = TOVRIN_F_DATA | TOVRIN_F_ACK_REQ | retx | (more ? TOVRIN_F_MORE_FRAGS : 0);
        if (answering) send_(ip, frame(flags, n, cur_trans_, 0, o.payload.data() + off, size));
        ++n;
        off += size;
    } while (off < o.payload.size());
    if (answering) transmissions[o.serial] += 1;
    o.attempts += 1;
    o.next_us = now_us + (1000000ull << (o.attempts - 1));  // 1, 2, 4, 8, 16 s
}

void Controller::tick(uint64_t now_us) {
    if (cur_ && now_us >= cur_->next_us) {
        if (cur_->attempts >= 5)
            cur_.reset();  // given up: the outcome stays unknown
        else
            transmit(now_us);
    }
    if (!cur_ && !queue_.empty() && answering) {
        cur_ = std::move(queue_.front());
        queue_.pop_front();
        cur_trans_ = next_trans_;
        next_trans_ = static_cast<uint8_t>(next_trans_ == 255 ? 1 : next_trans_ + 1);
        sent[cur_->serial].trans = cur_trans_;
        transmit(now_us);
    }
}

std::optional<uint64_t> Controller::next_at() const {
    if (cur_) return cur_->next_us;
    if (!queue_.empty() && answering) return 0;  // due at once
    return std::nullopt;
}

void Controller::receive(uint64_t now_us, uint32_t dst_ip, const std::vector<uint8_t> &bytes) {
    if (!answering || dst_ip != ip || bytes.size() < TOVRIN_HDR_LEN) return;
    const tovrin_hdr_t h = tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN>(bytes.data(), TOVRIN_HDR_LEN));
    if (h.flags & TOVRIN_F_CTRL) {
        if (bytes.size() <= TOVRIN_HDR_LEN) return;
        const uint8_t type = bytes[TOVRIN_HDR_LEN];
        if (type == TOVRIN_CTRL_REGISTER) send_(ip, ctrl_answer(TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN));
        if (type == TOVRIN_CTRL_KEEPALIVE) send_(ip, ctrl_answer(TOVRIN_CTRL_KEEPALIVE, TOVRIN_KA_LEN));
        return;
    }
    if (h.flags & TOVRIN_F_ACK) {
        if (cur_ && h.ctlr_trans == cur_trans_) {
            sent[cur_->serial].acked = true;
            cur_.reset();
            tick(now_us);
        }
        return;
    }
    data_from_ap(bytes);
}

void Controller::data_from_ap(const std::vector<uint8_t> &bytes) {
    const tovrin_hdr_t h = tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN>(bytes.data(), TOVRIN_HDR_LEN));
    const uint8_t *p = bytes.data() + TOVRIN_HDR_LEN;
    const std::size_t n = bytes.size() - TOVRIN_HDR_LEN;
    if (h.frag == 0) {
        rx_.assign(p, p + n);
        rx_trans_ = h.ap_trans;
        rx_next_frag_ = 1;
    } else if (h.ap_trans == rx_trans_ && h.frag == rx_next_frag_) {
        rx_.insert(rx_.end(), p, p + n);
        ++rx_next_frag_;
    } else {
        return;
    }
    if (h.flags & TOVRIN_F_MORE_FRAGS) return;
    // Whole: acknowledged and recorded every time. Whether a copy is new is
    // the controller's own business; the checks only ask what reached it.
    send_(ip, frame(TOVRIN_F_ACK, h.frag, 0, h.ap_trans, nullptr, 0));
    rx_next_frag_ = -1;
    if (rx_.size() < TOVRIN_PLAIN_HDR_LEN) throw std::runtime_error("controller received a short message");
    ApMsg m{static_cast<int32_t>(tovrin_load32(&rx_[4])), static_cast<int32_t>(tovrin_load32(&rx_[8])), {}};
    if (rx_[0] == TOVRIN_DATA_PLAIN) {
        m.data.assign(rx_.begin() + TOVRIN_PLAIN_HDR_LEN, rx_.end());
    } else if (rx_[0] == TOVRIN_DATA_ENC && rx_.size() >= TOVRIN_ENC_HDR_LEN) {
        const std::size_t body = rx_.size() - TOVRIN_ENC_HDR_LEN;
        std::vector<uint8_t> plain(body);
        uint8_t digest[TOVRIN_MD5_LEN];
        if (!tovrin_aes_cbc(false, rx_.data() + TOVRIN_ENC_HDR_LEN, plain.data(), body, key_.data(), key_.size(),
                            &rx_[16]))
            throw std::runtime_error("controller cannot decrypt");
        if (!tovrin_md5(plain.data(), body, digest)) throw std::runtime_error("controller cannot digest");
        if (!std::equal(digest, digest + TOVRIN_MD5_LEN, rx_.begin() + 32))
            throw std::runtime_error("controller received a message with a bad digest");
        plain.resize(body - tovrin_load32(&rx_[12]));
        m.data = std::move(plain);
    } else {
        throw std::runtime_error("controller received a message of unknown type");
    }
    received.push_back(std::move(m));
}

}  // namespace simulate
