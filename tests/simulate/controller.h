#pragma once
// A controller as the access point expects one: it answers registration and
// keepalive requests, reassembles and acknowledges the access point's data
// messages, and sends messages of its own one at a time, retransmitting the
// whole message with the RETX flag after 1, 2, 4 and 8 s and giving up after
// the fifth transmission, as the daemon's own sender does. Payloads,
// fragments, acknowledgements, reassembly and the send queue are drav-sim's.
#include <cmath>
#include <deque>
#include <functional>
#include <map>
#include <span>
#include <stdexcept>

#include "../../fuzz/harness.h"  // the daemon started as the fuzz targets start it, and fz::Delivery
#include "tools/drav-sim/payload.h"
#include "tools/drav-sim/reasm.h"
#include "tools/drav-sim/sender.h"

namespace simulate {

// A message the controller sent, as the scenario needs to judge deliveries.
struct CtrlMsg : fz::Delivery {  // by serial, which is also its first 8 data bytes
    uint8_t trans = 0;
    bool acked = false;  // an acknowledgement for it came back
};

class Controller {
public:
    using Send = std::function<void(uint32_t from_ip, std::vector<uint8_t> bytes)>;
    Controller(Send send, std::vector<uint8_t> key) : key(std::move(key)), send_(std::move(send)) {}

    const std::vector<uint8_t> key;  // shared with the access point

    uint32_t ip = 0;        // where it listens and sends from
    bool answering = true;  // false: receives nothing, sends nothing

    // Moves to a new address: a restarted controller, its message in flight abandoned.
    void restart_at(uint32_t new_ip, uint8_t first_trans) {
        ip = new_ip;
        if (tx_.waiting) {  // its outcome stays unknown
            tx_.queue.pop_front();
            serials_.pop_front();
            tx_.waiting = false;
        }
        next_trans_ = first_trans;  // never 0
        rx_ = dsim_reasm{};
    }
    // Queues a message of its own; it leaves when the ones before it are done.
    void queue_msg(int32_t src, int32_t dst, std::vector<uint8_t> data, bool encrypt) {
        const uint64_t serial = next_serial_++;
        data.resize(std::max<std::size_t>(data.size(), 8));
        std::memcpy(data.data(), &serial, 8);  // its name, in the host's order as the scenario reads it
        // The IV names the message, so its fragments can be told apart on the wire.
        dsim_iv iv{};
        for (std::size_t i = 0; i < iv.size(); ++i) iv[i] = static_cast<uint8_t>(serial >> (8 * (i % 8)));
        std::vector<uint8_t> p;
        const uint32_t s = static_cast<uint32_t>(src), d = static_cast<uint32_t>(dst);
        const std::string why = encrypt ? dsim_payload_enc(s, d, data, key, iv, p) : dsim_payload_plain(s, d, data, p);
        if (!why.empty()) throw std::runtime_error("controller cannot build a message: " + why);
        by_head_[head(p)] = serial;
        sent[serial] = CtrlMsg{{src, dst, std::move(data)}};
        dsim_sender_queue(tx_, dsim_out_msg{0, encrypt, s, d, 0, std::move(p)});
        serials_.push_back(serial);
    }
    void receive(uint64_t now_us, uint32_t dst_ip, const std::vector<uint8_t> &bytes) {
        if (!answering || dst_ip != ip || bytes.size() < TOVRIN_HDR_LEN) return;
        const tovrin_hdr_t h =
            tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN>(bytes.data(), TOVRIN_HDR_LEN));
        if (h.flags & TOVRIN_F_CTRL) {
            if (bytes.size() <= TOVRIN_HDR_LEN) return;
            // Answers of the request's type and length, payload zero: the access
            // point reads only the type and the length.
            const uint8_t type = bytes[TOVRIN_HDR_LEN];
            const uint16_t len = type == TOVRIN_CTRL_REGISTER ? TOVRIN_REG_LEN : TOVRIN_KA_LEN;
            if (type == TOVRIN_CTRL_REGISTER || type == TOVRIN_CTRL_KEEPALIVE)
                send_(ip, ctrl_packet(type, len, len, TOVRIN_F_CTRL | TOVRIN_F_DATA));
            return;
        }
        if (h.flags & TOVRIN_F_ACK) {
            int tries = 0;
            double rtt = 0;
            if (dsim_sender_ack(tx_, h.ctlr_trans, static_cast<double>(now_us) / 1e6, tries, rtt) ==
                dsim_ack_match::matched) {
                sent[serials_.front()].acked = true;
                serials_.pop_front();
                tick(now_us);
            }
            return;
        }
        // A data fragment of the access point's.
        std::string why;
        switch (dsim_reasm_feed(rx_, h, std::span<const uint8_t>(bytes).subspan(TOVRIN_HDR_LEN), why)) {
        case dsim_frag_verdict::more:
        case dsim_frag_verdict::refused: return;
        case dsim_frag_verdict::repeat:
            // The access point resends when our acknowledgement was lost: answer
            // again so it stops, and record nothing twice, as drav-sim does.
            send_(ip, dsim_build_ack(TOVRIN_F_ACK | TOVRIN_F_RETX, rx_.last_frag, rx_.ap_trans));
            return;
        case dsim_frag_verdict::complete: break;
        }
        send_(ip, dsim_build_ack(TOVRIN_F_ACK, rx_.last_frag, rx_.ap_trans));
        dsim_opened o = dsim_payload_open(dsim_reasm_message(rx_), key);
        if (o.status != dsim_open_status::ok)
            throw std::runtime_error("controller received a message it cannot open: " + o.problem);
        received.push_back({static_cast<int32_t>(o.src), static_cast<int32_t>(o.dst), std::move(o.data)});
    }
    // Retransmissions and the next message, due at next_at().
    void tick(uint64_t now_us) {
        // A silent controller starts nothing new, but the message on the wire
        // runs through its schedule.
        if (!tx_.waiting && !answering) return;
        // The sender counts in seconds; an expiry due at this microsecond (as
        // next_at() rounded it) must fire now, whatever the rounding did.
        double now = static_cast<double>(now_us) / 1e6;
        if (tx_.waiting && next_at() <= now_us) now = std::max(now, tx_.due);
        for (const dsim_tx_event &ev : dsim_sender_run(tx_, now)) {
            switch (ev.kind) {
            case dsim_tx_kind::give_up: serials_.pop_front(); break;  // the outcome stays unknown
            case dsim_tx_kind::first:
                if (!answering) {  // the sender starts the next head at once; a silent controller holds it
                    tx_.waiting = false;
                    return;
                }
                tx_.queue.front().ctlr_trans = next_trans_;
                sent[serials_.front()].trans = next_trans_;
                next_trans_ = static_cast<uint8_t>(next_trans_ == 255 ? 1 : next_trans_ + 1);
                transmit_head(ev.tries);
                break;
            case dsim_tx_kind::retx: transmit_head(ev.tries); break;
            }
        }
    }
    std::optional<uint64_t> next_at() const {
        if (tx_.waiting) return static_cast<uint64_t>(std::llround(tx_.due * 1e6));
        if (!tx_.queue.empty() && answering) return 0;  // due at once
        return std::nullopt;
    }

    // Every message it ever sent (by serial) and every one it received whole.
    std::map<uint64_t, CtrlMsg> sent;
    std::vector<fz::Delivery> received;
    // The serial of the message a data fragment belongs to (0: none of ours):
    // fragment 0 by the first bytes of its payload, later ones by their
    // transaction number, the latest message that had it.
    uint64_t serial_of(uint8_t frag, uint8_t trans, std::span<const uint8_t> payload) const {
        if (frag == 0) {
            const auto it = by_head_.find(head(payload));
            return it != by_head_.end() ? it->second : 0;
        }
        for (auto it = sent.rbegin(); it != sent.rend(); ++it)
            if (it->second.trans == trans) return it->first;
        return 0;
    }

private:
    void transmit_head(int tries) {
        if (!answering) return;  // a silent controller's tries still count down
        const dsim_out_msg &m = tx_.queue.front();
        for (auto &d : dsim_fragment(m.payload, m.ctlr_trans, 0, tries > 1)) send_(ip, std::move(d));
    }
    // The first bytes of a payload (at most 48), which tell messages apart.
    static std::vector<uint8_t> head(std::span<const uint8_t> p) {
        return {p.begin(), p.begin() + std::min<std::size_t>(p.size(), 48)};
    }

    Send send_;
    std::map<std::vector<uint8_t>, uint64_t> by_head_;  // serials by head()
    uint64_t next_serial_ = 1;
    // drav-sim's send queue: one message on the wire, 1, 2, 4, 8 s, given up
    // at the fifth expiry. serials_ runs beside its queue, front to front.
    dsim_sender tx_;
    std::deque<uint64_t> serials_;
    uint8_t next_trans_ = 1;  // numbered when a message goes on the wire
    // Reassembly of the access point's messages: drav-sim's.
    dsim_reasm rx_;
};

}  // namespace simulate
