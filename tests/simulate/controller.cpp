#include "controller.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "link/wire.h"
#include "packets.h"
#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/payload.h"

namespace simulate {

namespace {

// Registration and keepalive answers of the given length, payload zero: the
// access point reads only the type and the length.
std::vector<uint8_t> ctrl_answer(uint8_t type, uint16_t len) {
    return ctrl_packet(type, len, len, TOVRIN_F_CTRL | TOVRIN_F_DATA);
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
    std::string why;
    if (encrypt) {
        // The IV names the message, so its fragments can be told apart on the wire.
        dsim_iv iv{};
        for (std::size_t i = 0; i < iv.size(); ++i) iv[i] = static_cast<uint8_t>(serial >> (8 * (i % 8)));
        why = dsim_payload_enc(static_cast<uint32_t>(src), static_cast<uint32_t>(dst), data, key_, iv, p);
    } else {
        why = dsim_payload_plain(static_cast<uint32_t>(src), static_cast<uint32_t>(dst), data, p);
    }
    if (!why.empty()) throw std::runtime_error("controller cannot build a message: " + why);
    by_head[std::vector<uint8_t>(p.begin(), p.begin() + static_cast<long>(std::min<std::size_t>(p.size(), 48)))] =
        serial;
    sent[serial] = CtrlMsg{serial, src, dst, std::move(data)};
    queue_.push_back(Out{serial, std::move(p)});
}

void Controller::transmit(uint64_t now_us) {
    Out &o = *cur_;
    if (answering)
        for (auto &d : dsim_fragment(o.payload, cur_trans_, 0, o.attempts > 0)) send_(ip, std::move(d));
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
    send_(ip, dsim_build_ack(TOVRIN_F_ACK, h.frag, h.ap_trans));
    rx_next_frag_ = -1;
    dsim_opened o = dsim_payload_open(rx_, key_);
    if (o.status != dsim_open_status::ok)
        throw std::runtime_error("controller received a message it cannot open: " + o.problem);
    ApMsg m{static_cast<int32_t>(o.src), static_cast<int32_t>(o.dst), std::move(o.data)};
    received.push_back(std::move(m));
}

}  // namespace simulate
