#pragma once
// The simulated controller without its I/O: takes datagrams, commands and the
// passing of time, prints what happens, and leaves the datagrams to send in
// an outbox that the event loop empties.
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/reasm.h"
#include "tools/drav-sim/sender.h"

struct dsim_config {
    bool answer_reg = true;
    bool answer_ka = true;
    bool ack = true;
    double drop = 0.0;  // fraction of datagrams lost, each direction
    uint64_t seed = 1;
    int quiet = 0;        // 0 every datagram, 1 (-q) events only, 2 (--count-only) notes only
    long exit_after = 0;  // quit after this many messages received; 0: never
};

struct dsim_stats {
    long dgrams_in = 0, dgrams_out = 0, bad_dgrams = 0, dropped_in = 0, dropped_out = 0;
    long reg_answered = 0, ka_answered = 0;
    long msgs_in = 0, msgs_plain = 0, msgs_enc = 0, md5_bad = 0, msgs_bad = 0, frags_refused = 0;
    long msgs_sent = 0, msgs_acked = 0, msgs_given_up = 0;
};

struct dsim_outgoing {
    sockaddr_in to{};
    dsim_bytes bytes;
};

struct dsim_engine {
    dsim_config cfg;
    dsim_stats st;
    dsim_bytes key;
    bool have_peer = false;
    bool peer_fixed = false;  // given with --ap: never learnt anew
    sockaddr_in peer{};
    dsim_reasm rx;
    dsim_sender tx;
    uint8_t heard_ap_trans = 0;  // last AP number heard, mirrored in our data
    std::mt19937_64 rng;
    std::vector<dsim_outgoing> outbox;
    FILE *out = stdout;
    double now = 0;  // seconds since start, set by the caller before each call
    bool quit = false;
};

enum class dsim_line { dgram, event, note };

// Sets the generator from cfg.seed; call after filling cfg.
void dsim_engine_init(dsim_engine &e);
// Prints "<time> <body>" when the quiet level lets this kind through; flushes.
void dsim_print(dsim_engine &e, dsim_line kind, const std::string &body);
// One datagram received from `from`.
void dsim_engine_datagram(dsim_engine &e, const sockaddr_in &from, std::span<const uint8_t> dgram);
// Time passed: retransmissions and give-ups due at e.now.
void dsim_engine_tick(dsim_engine &e);
// Queues an application message (count copies); prints why when it cannot.
void dsim_engine_send(dsim_engine &e, bool enc, uint32_t src, uint32_t dst, std::span<const uint8_t> data, long count);
// Passes a datagram out through the drop filter into the outbox, printed with
// what (the decoding after the header).
void dsim_emit(dsim_engine &e, const sockaddr_in &to, dsim_bytes bytes, const std::string &what);
// The SUMMARY note.
void dsim_engine_summary(dsim_engine &e);
// One command line; false when it was not understood (a note says why).
bool dsim_engine_command(dsim_engine &e, const std::string &line);
