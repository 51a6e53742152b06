#pragma once
// The controller's send queue as pure logic: numbering, one message on the
// wire at a time, and the retransmission schedule. Time is passed in, in
// seconds; the caller transmits what the returned events name.
#include <cstdint>
#include <deque>
#include <limits>
#include <vector>

#include "tools/drav-sim/codec.h"

// Delay before the first expiry; each later one doubles it (1, 2, 4, 8, 16 s).
inline constexpr double DSIM_RETRY_FIRST_S = 1.0;
// The expiry at which a message is given up (after the first transmission and
// four retransmissions).
inline constexpr int DSIM_RETRY_GIVEUP = 5;

struct dsim_out_msg {
    uint8_t ctlr_trans = 0;
    bool enc = false;
    uint32_t src = 0, dst = 0;
    std::size_t data_len = 0;
    dsim_bytes payload;  // the finished payload, sent as it is at every try
};

struct dsim_sender {
    std::deque<dsim_out_msg> queue;  // front is the head
    unsigned seq = 0;                // last number given
    bool waiting = false;            // the head is on the wire
    int expiries = 0;                // expiries of the head so far
    double due = 0;                  // next expiry, while waiting
    double first_tx = 0;             // when the head was first sent
};

enum class dsim_tx_kind { first, retx, give_up };

struct dsim_tx_event {
    dsim_tx_kind kind;
    uint8_t ctlr_trans;
    int tries;  // transmissions of the message, this one included (give_up: all made)
};

// The next controller transaction number: 1 to 255, never 0.
uint8_t dsim_sender_number(dsim_sender &s);
// Appends msg (numbered by the caller with dsim_sender_number).
void dsim_sender_queue(dsim_sender &s, dsim_out_msg msg);
// Advances to now: expiries due retransmit or give up the head, and an idle
// sender puts the next head on the wire. For first and retx the message to send
// is s.queue.front() when the call returns.
std::vector<dsim_tx_event> dsim_sender_run(dsim_sender &s, double now);

enum class dsim_ack_match { matched, idle, other };
// An acknowledgement carrying ctlr_trans arrived. Matched: the head is done and
// removed (acked_trans, tries, rtt tell which); call dsim_sender_run next.
dsim_ack_match dsim_sender_ack(dsim_sender &s, uint8_t ctlr_trans, double now, int &tries, double &rtt);
// When dsim_sender_run next has work, infinity when none.
inline double dsim_sender_due(const dsim_sender &s) {
    if (s.waiting) return s.due;
    return s.queue.empty() ? std::numeric_limits<double>::infinity() : 0.0;
}
