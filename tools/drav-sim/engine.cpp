#include "tools/drav-sim/engine.h"

#include <sys/random.h>

#include <cstring>

#include "tools/drav-sim/format.h"
#include "tools/drav-sim/payload.h"

void dsim_engine_init(dsim_engine &e) { e.rng.seed(e.cfg.seed); }

void dsim_print(dsim_engine &e, dsim_line kind, const std::string &body) {
    if ((kind == dsim_line::dgram && e.cfg.quiet > 0) || (kind == dsim_line::event && e.cfg.quiet > 1)) return;
    std::fprintf(e.out, "%8.3f %s\n", e.now, body.c_str());
    std::fflush(e.out);
}

namespace {

bool lost(dsim_engine &e) {
    if (e.cfg.drop <= 0) return false;
    return std::uniform_real_distribution<double>(0.0, 1.0)(e.rng) < e.cfg.drop;
}

bool same_addr(const sockaddr_in &a, const sockaddr_in &b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

tovrin_hdr_t hdr_of(const dsim_bytes &d) {
    return tovrin_hdr_decode(std::span<const uint8_t, TOVRIN_HDR_LEN>(d.data(), TOVRIN_HDR_LEN));
}

void transmit_head(dsim_engine &e, bool retx) {
    const dsim_out_msg &m = e.tx.queue.front();
    for (dsim_bytes &d : dsim_fragment(m.payload, m.ctlr_trans, e.heard_ap_trans, retx))
        dsim_emit(e, e.peer, std::move(d), "DATA");
}

void pump(dsim_engine &e) {
    if (!e.have_peer) return;  // messages wait until the AP is known
    for (const dsim_tx_event &ev : dsim_sender_run(e.tx, e.now)) {
        std::string n = "ctlr_trans=" + std::to_string(ev.ctlr_trans);
        switch (ev.kind) {
        case dsim_tx_kind::first:
            ++e.st.msgs_sent;
            transmit_head(e, false);
            break;
        case dsim_tx_kind::retx:
            dsim_print(e, dsim_line::event, "* RETX " + n + " try=" + std::to_string(ev.tries));
            transmit_head(e, true);
            break;
        case dsim_tx_kind::give_up:
            ++e.st.msgs_given_up;
            dsim_print(e, dsim_line::event, "* GIVEUP " + n + " tries=" + std::to_string(ev.tries));
            break;
        }
    }
}

void deliver(dsim_engine &e) {
    dsim_opened m = dsim_payload_open(dsim_reasm_message(e.rx), e.key);
    ++e.st.msgs_in;
    std::string s = "* MSG ap_trans=" + std::to_string(e.rx.ap_trans);
    if (m.status == dsim_open_status::bad) {
        ++e.st.msgs_bad;
        dsim_print(e, dsim_line::event, s + " BAD " + m.problem);
    } else {
        ++(m.enc ? e.st.msgs_enc : e.st.msgs_plain);
        s += std::string(" type=") + (m.enc ? "enc" : "plain") + " src=" + std::to_string(m.src) +
             " dst=" + std::to_string(m.dst) + " len=" + std::to_string(m.len);
        if (m.status == dsim_open_status::md5_bad) ++e.st.md5_bad;
        if (m.enc)
            s += m.status == dsim_open_status::ok       ? " md5=ok"
                 : m.status == dsim_open_status::no_key ? " md5=nokey"
                                                        : " md5=BAD";
        if (m.status == dsim_open_status::ok) s += " data=" + dsim_fmt_data(m.data);
        dsim_print(e, dsim_line::event, s);
    }
    if (e.cfg.exit_after > 0 && e.st.msgs_in >= e.cfg.exit_after) e.quit = true;
}

void on_ctrl(dsim_engine &e, const sockaddr_in &from, const std::string &head, const dsim_frame &f) {
    uint8_t type = f.payload.empty() ? 0 : f.payload[0];
    if (type != TOVRIN_CTRL_REGISTER && type != TOVRIN_CTRL_KEEPALIVE) {
        char t[48];
        std::snprintf(t, sizeof t, " CTRL type=0x%02x unsupported", type);
        ++e.st.bad_dgrams;
        dsim_print(e, dsim_line::dgram, head + t);
        return;
    }
    dsim_ap_req req;
    std::string why = dsim_req_decode(f.payload, req);
    bool reg = type == TOVRIN_CTRL_REGISTER;
    if (!why.empty()) {
        ++e.st.bad_dgrams;
        dsim_print(e, dsim_line::dgram, head + (reg ? " BAD REG-REQ " : " BAD KA-REQ ") + why);
        return;
    }
    dsim_print(e, dsim_line::dgram, head + " " + dsim_fmt_req(req));
    if (reg && e.cfg.answer_reg) {
        ++e.st.reg_answered;
        dsim_emit(e, from, dsim_build_reg_resp(f.payload), "REG-RESP len=104");
    } else if (!reg && e.cfg.answer_ka) {
        ++e.st.ka_answered;
        dsim_emit(e, from, dsim_build_ka_resp(f.payload), "KA-RESP len=36");
    }
}

void on_ack(dsim_engine &e, const std::string &head, const dsim_frame &f) {
    int tries = 0;
    double rtt = 0;
    switch (dsim_sender_ack(e.tx, f.hdr.ctlr_trans, e.now, tries, rtt)) {
    case dsim_ack_match::idle: dsim_print(e, dsim_line::dgram, head + " ACK unexpected idle"); return;
    case dsim_ack_match::other:
        dsim_print(e, dsim_line::dgram,
                   head + " ACK unexpected expected_ctlr_trans=" + std::to_string(e.tx.queue.front().ctlr_trans));
        return;
    case dsim_ack_match::matched: break;
    }
    ++e.st.msgs_acked;
    dsim_print(e, dsim_line::dgram, head + " ACK matched");
    char r[32];
    std::snprintf(r, sizeof r, " rtt=%.3f", rtt);
    dsim_print(e, dsim_line::event,
               "* ACKED ctlr_trans=" + std::to_string(f.hdr.ctlr_trans) + " tries=" + std::to_string(tries) + r);
    pump(e);
}

void on_data(dsim_engine &e, const sockaddr_in &from, const std::string &head, const dsim_frame &f) {
    e.heard_ap_trans = f.hdr.ap_trans;
    std::string why;
    bool ack_req = (f.hdr.flags & TOVRIN_F_ACK_REQ) != 0;
    switch (dsim_reasm_feed(e.rx, f.hdr, f.payload, why)) {
    case dsim_frag_verdict::more: dsim_print(e, dsim_line::dgram, head + " DATA accepted"); return;
    case dsim_frag_verdict::refused:
        ++e.st.frags_refused;
        dsim_print(e, dsim_line::dgram, head + " DATA refused " + why);
        return;
    case dsim_frag_verdict::repeat:
        dsim_print(e, dsim_line::dgram, head + " DATA repeat");
        // The AP resends when our acknowledgement was lost: answer again, so
        // it stops, but deliver nothing twice.
        if (e.cfg.ack && ack_req) {
            e.rx.acked = true;
            dsim_emit(e, from, dsim_build_ack(TOVRIN_F_ACK | TOVRIN_F_RETX, e.rx.last_frag, e.rx.ap_trans),
                      "ACK repeat");
        }
        return;
    case dsim_frag_verdict::complete: break;
    }
    dsim_print(e, dsim_line::dgram, head + " DATA complete");
    // Acknowledged before it is looked into, as the AP does: a message that
    // then fails its checks is not worth resending.
    if (e.cfg.ack && ack_req) {
        e.rx.acked = true;
        dsim_emit(e, from, dsim_build_ack(TOVRIN_F_ACK, e.rx.last_frag, e.rx.ap_trans), "ACK");
    }
    deliver(e);
}

}  // namespace

void dsim_emit(dsim_engine &e, const sockaddr_in &to, dsim_bytes bytes, const std::string &what) {
    std::string head = "> " + dsim_fmt_addr(to);
    ++e.st.dgrams_out;  // dropped ones included, as on the way in
    if (lost(e)) {
        ++e.st.dropped_out;
        dsim_print(e, dsim_line::dgram, head + " DROPPED bytes=" + std::to_string(bytes.size()));
        return;
    }
    dsim_print(e, dsim_line::dgram, head + " " + dsim_fmt_hdr(hdr_of(bytes)) + " " + what);
    e.outbox.push_back({to, std::move(bytes)});
}

void dsim_engine_datagram(dsim_engine &e, const sockaddr_in &from, std::span<const uint8_t> dgram) {
    ++e.st.dgrams_in;
    std::string head = "< " + dsim_fmt_addr(from);
    if (lost(e)) {
        ++e.st.dropped_in;
        dsim_print(e, dsim_line::dgram, head + " DROPPED bytes=" + std::to_string(dgram.size()));
        return;
    }
    dsim_frame f;
    std::string why = dsim_frame_check(dgram, f);
    if (!why.empty()) {
        ++e.st.bad_dgrams;
        dsim_print(e, dsim_line::event, head + " BAD " + why);
        return;
    }
    head += " " + dsim_fmt_hdr(f.hdr);
    bool is_reg = (f.hdr.flags & TOVRIN_F_CTRL) && !f.payload.empty() && f.payload[0] == TOVRIN_CTRL_REGISTER;
    if (!e.have_peer || (is_reg && !e.peer_fixed && !same_addr(from, e.peer))) {
        // A registration names the AP anew: it may have restarted elsewhere.
        e.have_peer = true;
        e.peer = from;
        dsim_print(e, dsim_line::note, "# peer " + dsim_fmt_addr(from));
    } else if (!same_addr(from, e.peer)) {
        ++e.st.bad_dgrams;
        dsim_print(e, dsim_line::event, head + " BAD not from the AP " + dsim_fmt_addr(e.peer));
        return;
    }
    if (f.hdr.flags & TOVRIN_F_CTRL)
        on_ctrl(e, from, head, f);
    else if (f.hdr.flags & TOVRIN_F_ACK)
        on_ack(e, head, f);
    else
        on_data(e, from, head, f);
    pump(e);
}

void dsim_engine_tick(dsim_engine &e) { pump(e); }

void dsim_engine_send(dsim_engine &e, bool enc, uint32_t src, uint32_t dst, std::span<const uint8_t> data, long count) {
    for (long i = 0; i < count; ++i) {
        dsim_out_msg m;
        m.enc = enc;
        m.src = src;
        m.dst = dst;
        m.data_len = data.size();
        std::string why;
        if (enc) {
            dsim_iv iv{};
            // The IV travels in clear but must not repeat; the kernel's
            // generator is the simplest source that does not.
            if (getrandom(iv.data(), iv.size(), 0) != static_cast<ssize_t>(iv.size()))
                why = "no random bytes for the IV";
            else
                why = dsim_payload_enc(src, dst, data, e.key, iv, m.payload);
        } else {
            why = dsim_payload_plain(src, dst, data, m.payload);
        }
        if (!why.empty()) {
            dsim_print(e, dsim_line::note, "# send refused: " + why);
            return;
        }
        m.ctlr_trans = dsim_sender_number(e.tx);
        std::string s = "* QUEUE ctlr_trans=" + std::to_string(m.ctlr_trans) + " type=" + (enc ? "enc" : "plain") +
                        " src=" + std::to_string(src) + " dst=" + std::to_string(dst) +
                        " len=" + std::to_string(data.size()) +
                        " frags=" + std::to_string(dsim_frag_count(m.payload.size()));
        dsim_sender_queue(e.tx, std::move(m));
        s += " queued=" + std::to_string(e.tx.queue.size());
        if (e.cfg.quiet == 0) dsim_print(e, dsim_line::event, s);
    }
    pump(e);
}

void dsim_engine_summary(dsim_engine &e) {
    const dsim_stats &s = e.st;
    char b[512];
    std::snprintf(b, sizeof b,
                  "# SUMMARY dgrams_in=%ld dgrams_out=%ld bad_dgrams=%ld reg_answered=%ld "
                  "ka_answered=%ld msgs_in=%ld msgs_plain=%ld msgs_enc=%ld md5_bad=%ld msgs_bad=%ld "
                  "frags_refused=%ld msgs_sent=%ld msgs_acked=%ld msgs_given_up=%ld msgs_queued=%zu "
                  "dropped_in=%ld dropped_out=%ld",
                  s.dgrams_in, s.dgrams_out, s.bad_dgrams, s.reg_answered, s.ka_answered, s.msgs_in, s.msgs_plain,
                  s.msgs_enc, s.md5_bad, s.msgs_bad, s.frags_refused, s.msgs_sent, s.msgs_acked, s.msgs_given_up,
                  e.tx.queue.size(), s.dropped_in, s.dropped_out);
    dsim_print(e, dsim_line::note, b);
}
