#pragma once
// The link as a capture shows it: which side is the AP, the data messages put
// together per direction and transaction number, opened (and with a key
// decrypted and checked) with drav-sim's payload code, their acknowledgements
// and retransmissions, and the counts of a summary. Pure logic: datagrams in,
// records out.
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/payload.h"
#include "tools/tovrin-pcap/link_layer.h"

enum class tpcap_dir { unknown, up, down };  // up: AP to DRAV

// "AP->DRAV", "DRAV->AP", "?"
const char *tpcap_dir_name(tpcap_dir d);

// One complete data message.
struct tpcap_msg {
    double time = 0;  // when its last fragment completed it
    tpcap_dir dir = tpcap_dir::unknown;
    std::string from, to;                  // "addr:port"
    uint8_t num = 0;                       // its number: ap_trans up, ctlr_trans down
    uint8_t ap_trans = 0, ctlr_trans = 0;  // of the completing fragment
    std::size_t size = 0;                  // payload bytes, inner header included
    int frags = 0;
    int transmissions = 1;  // first fragments seen
    bool ack_req = false;
    bool acked = false;
    bool too_big = false;  // over 16384 bytes: not opened
    dsim_opened opened;    // type, endpoints, data, digest
};

// One datagram, for the per-datagram listing.
struct tpcap_dgram {
    double time = 0;
    tpcap_dir dir = tpcap_dir::unknown;
    std::string from, to;
    bool ok = false;  // passed the frame checks
    tovrin_hdr_t hdr{};
    std::string what;  // what it is, or why it is malformed
};

struct tpcap_stats {
    long frames = 0, other = 0, bad_frames = 0;  // capture frames; not ours; malformed below UDP
    long datagrams = 0, malformed = 0;
    long ctrl = 0, acks = 0, acks_repeated = 0, acks_unmatched = 0, fragments = 0;
    long messages = 0, up = 0, down = 0, plain = 0, enc = 0;
    long md5_ok = 0, md5_bad = 0, unchecked = 0, bad_msgs = 0;
    long retransmissions = 0, acks_missing = 0, frags_lost = 0, incomplete = 0;
};

// The fragments of one message number in one direction.
struct tpcap_asm {
    std::map<int, dsim_bytes> parts;
    int last = -1;  // the fragment without MORE_FRAGS
    bool complete = false;
    int firsts = 0;       // first fragments seen: the transmissions so far
    std::size_t msg = 0;  // index in messages once complete
};

// What one sender has on the wire now: one transmission of one message.
struct tpcap_tx {
    bool open = false;
    uint8_t num = 0;
    int total = -1;  // fragments the message needs, from its length field
    int last = -1;
    std::set<int> seen;
};

struct tpcap_flow {
    tpcap_tx tx;
    std::map<uint8_t, tpcap_asm> asms;
};

struct tpcap_decoder {
    dsim_bytes key;  // empty: encrypted messages are not opened
    uint16_t port = TOVRIN_PORT;
    bool keep_dgrams = false;                 // fill dgrams
    int64_t t0 = -1;                          // time stamp of the first frame, microseconds
    std::map<std::string, std::string> aps;   // conversation -> the AP's endpoint
    std::map<std::string, tpcap_flow> flows;  // "from>to"
    std::vector<tpcap_msg> messages;
    std::vector<tpcap_dgram> dgrams;
    tpcap_stats st;
};

// One captured frame at usec (microseconds since the epoch) of link type dlt.
void tpcap_feed_frame(tpcap_decoder &d, int dlt, int64_t usec, std::span<const uint8_t> frame);
// One UDP datagram at t seconds after the first frame.
void tpcap_feed_udp(tpcap_decoder &d, double t, const tpcap_udp &u);
// End of the capture: transmissions still open and unanswered messages counted.
void tpcap_finish(tpcap_decoder &d);
