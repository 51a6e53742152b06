// Sequences of controller fragments into reassembly, each checked against a
// small model of the receiving side: after every fragment the daemon must
// have sent exactly the acknowledgements the model sends and delivered
// exactly the messages the model delivers, byte for byte. A delivered message
// can then never exceed what was sent nor carry bytes from outside it.
//
// Input: byte 0, bit 7: log at level 4. Then fragments of 5 bytes each plus
// their data: flags (bits 0x27 of the byte are used, 0x20 always set),
// fragment number (0-17), transaction number (0-3, so numbers repeat),
// a length code and a fill byte. The data is a valid plain message header for
// a fragment 0 when bit 3 of the flags byte is set (else fill bytes), so whole
// messages pass the length check and reach delivery.
#include "harness.h"

namespace {

// The receiving side as it should behave, written from its rules alone.
struct Model {
    uint8_t last_flags = 0, last_frag = 0, last_trans = 0, acked_trans = 0;
    std::vector<uint8_t> buf;
    std::vector<std::vector<uint8_t>> acks;                    // every acknowledgement, as sent
    std::vector<std::pair<uint32_t, fz::Delivery>> delivered;  // with its id
    uint32_t next_id = TOVRIN_MSG_ID_START;                    // every message handed on takes one, delivered or not

    void fragment(uint8_t F, uint8_t f, uint8_t t, const std::vector<uint8_t> &d) {
        bool restart = false;
        if (!(F & TOVRIN_F_RETX) && f == 0) {
            restart = true;
        } else if (t != last_trans) {
            if (f != 0) return;
            restart = true;
        } else if (last_flags & TOVRIN_F_MORE_FRAGS) {
            if (f != static_cast<uint8_t>(last_frag + 1)) return;
        } else {
            if ((F & TOVRIN_F_RETX) && f == 0 && (F & TOVRIN_F_ACK_REQ) && acked_trans == t) ack(TOVRIN_F_RETX);
            return;
        }
        const std::size_t base = restart ? 0 : buf.size();
        if (base + d.size() > TOVRIN_MAX_PAYLOAD) return;
        buf.resize(base);
        buf.insert(buf.end(), d.begin(), d.end());
        last_flags = F;
        last_frag = f;
        last_trans = t;
        if (F & TOVRIN_F_MORE_FRAGS) return;
        if (F & TOVRIN_F_ACK_REQ) ack(0);
        auto m = fz::open_plain(buf);
        if (!m) return;
        const uint32_t id = next_id++;
        if (fz::deliverable(*m)) delivered.emplace_back(id, std::move(*m));
    }

    void ack(uint8_t flags) {
        acks.push_back(frame(static_cast<uint8_t>(flags | TOVRIN_F_ACK), last_frag, last_trans, 0, {}));
        acked_trans = last_trans;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    fz::begin(in);
    fz::bring_up();
    // Only the fragments' effects are compared from here on.
    sim::udp_clear_sent();
    sim::ipc_clear_sent();

    static const int32_t kDst[4] = {101, 109, 103, 0};
    Model model;
    while (!in.empty()) {
        // Read in this order: declarators are sequenced.
        const uint8_t fb = in.u8(), frag = in.u8() % 18, trans = in.u8() % 4, code = in.u8(), fill = in.u8();
        const uint8_t flags = static_cast<uint8_t>(TOVRIN_F_DATA | (fb & 0x07));
        // Mostly full fragments, so messages reach the 16384-byte limit.
        std::size_t len = (code & 0x80) ? TOVRIN_FRAG_SIZE : std::size_t{code} * 8;
        std::vector<uint8_t> d(len, fill);
        if ((fb & 0x08) && frag == 0 && len >= TOVRIN_PLAIN_HDR_LEN) {
            // A message header claiming a total size of (fill+1) fragments or so.
            const std::size_t total =
                std::min<std::size_t>(TOVRIN_MAX_PAYLOAD, (fill % 17) * TOVRIN_FRAG_SIZE + len % 97);
            auto h = plain_payload(100 + (fill & 7), kDst[fb >> 4 & 3], {});
            tovrin_store16(&h[2], static_cast<uint16_t>(total));
            std::copy(h.begin(), h.end(), d.begin());
        }
        fz::from_ctrl(frame(flags, frag, trans, 0, d));
        const std::size_t delivered = model.delivered.size();
        model.fragment(flags, frag, trans, d);
        // The model adds at most one of each per fragment, so equal counts and
        // the newest one checked cover everything: the link carries nothing
        // but the model's acks, the endpoints get exactly its deliveries.
        const auto &sent = sim::udp_sent();
        FZ_CHECK(sent.size() == model.acks.size() && (sent.empty() || sent.back().bytes == model.acks.back()));
        const auto &ipc = sim::ipc_sent();
        FZ_CHECK(ipc.size() == model.delivered.size());
        if (ipc.size() > delivered)
            fz::check_delivery(ipc.back(), model.delivered.back().second, model.delivered.back().first);
        // The reassembly state itself, so a difference shows before it is sent anywhere.
        const tovrin_comm_t &c = tovrin_gbl.comm;
        FZ_CHECK(static_cast<std::size_t>(c.rx_len) == model.buf.size());
        FZ_CHECK(std::equal(model.buf.begin(), model.buf.end(), c.rx_buf));
        FZ_CHECK(c.rx_hdr.flags == model.last_flags && c.rx_hdr.frag == model.last_frag &&
                 c.rx_hdr.ctlr_trans == model.last_trans);
        fz::check_state();
    }
    fz::end();
    return 0;
}
