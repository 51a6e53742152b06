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
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "harness.h"
#include "relay/relay.h"

namespace {

struct Ack {
    uint8_t flags, frag, trans;
};
struct Delivery {
    uint32_t id;
    int32_t src, dst;
    std::vector<uint8_t> data;
};

// The receiving side as it should behave, written from its rules alone.
struct Model {
    uint8_t last_flags = 0, last_frag = 0, last_trans = 0;
    std::vector<uint8_t> buf;
    uint8_t acked_trans = 0;
    std::vector<Ack> acks;
    std::vector<Delivery> delivered;
    uint32_t next_id = TOVRIN_MSG_ID_START;  // every message handed on takes one, delivered or not

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
        if (!(F & TOVRIN_F_MORE_FRAGS)) complete();
    }

    void ack(uint8_t flags) {
        acks.push_back({static_cast<uint8_t>(flags | TOVRIN_F_ACK), last_frag, last_trans});
        acked_trans = last_trans;
    }

    void complete() {
        if (last_flags & TOVRIN_F_ACK_REQ) ack(0);
        if (buf.size() < TOVRIN_PLAIN_HDR_LEN) return;
        if (tovrin_load16(&buf[2]) != buf.size() || buf[0] != TOVRIN_DATA_PLAIN) return;
        const auto dst = static_cast<int32_t>(tovrin_load32(&buf[8]));
        Delivery m{next_id++, static_cast<int32_t>(tovrin_load32(&buf[4])), dst,
                   std::vector<uint8_t>(buf.begin() + TOVRIN_PLAIN_HDR_LEN, buf.end())};
        if (fz::endpoint_path(dst).empty() || m.data.size() > TOVRIN_APP_MAX_DATA) return;
        delivered.push_back(std::move(m));
    }
};

void compare(const Model &m, std::size_t &acks_seen, std::size_t &msgs_seen) {
    // Only what is new since the last fragment: earlier output was checked then.
    const auto &sent = sim::udp_sent();
    std::size_t acks = acks_seen;
    for (std::size_t i = acks_seen; i < sent.size(); ++i) {
        const auto &d = sent[i];
        FZ_CHECK(d.bytes.size() == TOVRIN_HDR_LEN);  // the link is quiet but for acks
        FZ_CHECK(acks < m.acks.size());
        const Ack &a = m.acks[acks++];
        const std::vector<uint8_t> want = fz::frame(a.flags, a.frag, a.trans, 0, {});
        FZ_CHECK(d.bytes == want);
    }
    FZ_CHECK(acks == m.acks.size());
    acks_seen = acks;

    const auto &ipc = sim::ipc_sent();
    std::size_t msgs = msgs_seen;
    for (std::size_t i = msgs_seen; i < ipc.size(); ++i) {
        const auto &s = ipc[i];
        FZ_CHECK(s.type == TOVRIN_IPC_APP_MSG);
        FZ_CHECK(msgs < m.delivered.size());
        const Delivery &want = m.delivered[msgs++];
        FZ_CHECK(s.payload.size() == TOVRIN_APP_HDR_LEN + want.data.size());
        tovrin_app_msg_t h;
        std::memcpy(&h, s.payload.data(), TOVRIN_APP_HDR_LEN);
        FZ_CHECK(h.src_ep == want.src && h.dst_ep == want.dst && h.len == want.data.size());
        FZ_CHECK(h.flags == TOVRIN_MSG_F_FROM_CTRL && h.id == want.id);
        FZ_CHECK(s.peer == fz::endpoint_path(want.dst));
        FZ_CHECK(std::equal(want.data.begin(), want.data.end(), s.payload.begin() + TOVRIN_APP_HDR_LEN));
    }
    FZ_CHECK(msgs == m.delivered.size());
    msgs_seen = msgs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    fz::begin((in.u8() & 0x80) != 0);
    if (!fz::bring_up()) fz::fail("link did not come up", __FILE__, __LINE__);
    // Only the fragments' effects are compared from here on.
    sim::udp_clear_sent();
    sim::ipc_clear_sent();

    static const int32_t kDst[4] = {101, 109, 103, 0};
    Model model;
    std::size_t acks = 0, msgs = 0;
    while (!in.empty()) {
        const uint8_t fb = in.u8();
        const uint8_t flags = static_cast<uint8_t>(TOVRIN_F_DATA | (fb & 0x07));
        const uint8_t frag = in.u8() % 18;
        const uint8_t trans = in.u8() % 4;
        const uint8_t code = in.u8();
        const uint8_t fill = in.u8();
        // Mostly full fragments, so messages reach the 16384-byte limit.
        std::size_t len = (code & 0x80) ? TOVRIN_FRAG_SIZE : std::size_t{code} * 8;
        std::vector<uint8_t> d(len, fill);
        if ((fb & 0x08) && frag == 0 && len >= TOVRIN_PLAIN_HDR_LEN) {
            // A message header claiming a total size of (fill+1) fragments or so.
            const std::size_t total =
                std::min<std::size_t>(TOVRIN_MAX_PAYLOAD, (fill % 17) * TOVRIN_FRAG_SIZE + len % 97);
            auto h = fz::plain_payload(100 + (fill & 7), kDst[fb >> 4 & 3], {});
            tovrin_store16(&h[2], static_cast<uint16_t>(total));
            std::copy(h.begin(), h.end(), d.begin());
        }
        fz::from_ctrl(fz::frame(flags, frag, trans, 0, d));
        model.fragment(flags, frag, trans, d);
        compare(model, acks, msgs);
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
