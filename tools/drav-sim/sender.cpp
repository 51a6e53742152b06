#include "tools/drav-sim/sender.h"

uint8_t dsim_sender_number(dsim_sender &s) {
    s.seq = s.seq % 255 + 1;
    return static_cast<uint8_t>(s.seq);
}

void dsim_sender_queue(dsim_sender &s, dsim_out_msg msg) { s.queue.push_back(std::move(msg)); }

std::vector<dsim_tx_event> dsim_sender_run(dsim_sender &s, double now) {
    std::vector<dsim_tx_event> ev;
    // Each pass handles one expiry or one start, so a late call still walks
    // the schedule in order.
    for (;;) {
        if (s.waiting && now >= s.due) {
            ++s.expiries;
            const dsim_out_msg &head = s.queue.front();
            if (s.expiries < DSIM_RETRY_GIVEUP) {
                // From the expiry's due time, so a late wake-up does not
                // stretch the rest of the schedule.
                s.due += DSIM_RETRY_FIRST_S * (1 << s.expiries);
                ev.push_back({dsim_tx_kind::retx, head.ctlr_trans, s.expiries + 1});
                continue;
            }
            ev.push_back({dsim_tx_kind::give_up, head.ctlr_trans, s.expiries});
            s.queue.pop_front();
            s.waiting = false;
            continue;
        }
        if (!s.waiting && !s.queue.empty()) {
            s.waiting = true;
            s.expiries = 0;
            s.first_tx = now;
            s.due = now + DSIM_RETRY_FIRST_S;
            ev.push_back({dsim_tx_kind::first, s.queue.front().ctlr_trans, 1});
            continue;
        }
        return ev;
    }
}

dsim_ack_match dsim_sender_ack(dsim_sender &s, uint8_t ctlr_trans, double now, int &tries, double &rtt) {
    if (!s.waiting) return dsim_ack_match::idle;
    if (s.queue.front().ctlr_trans != ctlr_trans) return dsim_ack_match::other;
    tries = s.expiries + 1;
    rtt = now - s.first_tx;
    s.queue.pop_front();
    s.waiting = false;
    return dsim_ack_match::matched;
}
