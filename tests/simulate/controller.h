#pragma once
// A controller as the access point expects one: it answers registration and
// keepalive requests, reassembles and acknowledges the access point's data
// messages, and sends messages of its own one at a time, retransmitting the
// whole message with the RETX flag after 1, 2, 4 and 8 s and giving up after
// the fifth transmission, as the daemon's own sender does. Payloads,
// fragments, acknowledgements, reassembly and the send queue are drav-sim's.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "tools/drav-sim/reasm.h"
#include "tools/drav-sim/sender.h"

namespace simulate {

// A message the controller sent, as the scenario needs to judge deliveries.
struct CtrlMsg {  // by serial, which is also its first 8 data bytes
    int32_t src, dst;
    std::vector<uint8_t> data;
    uint8_t trans = 0;
    bool acked = false;  // an acknowledgement for it came back
};

// A data message the controller received whole from the access point.
struct ApMsg {
    int32_t src, dst;
    std::vector<uint8_t> data;
};

class Controller {
public:
    using Send = std::function<void(uint32_t from_ip, std::vector<uint8_t> bytes)>;
    Controller(Send send, std::vector<uint8_t> key) : key(std::move(key)), send_(std::move(send)) {}

    const std::vector<uint8_t> key;  // shared with the access point

    uint32_t ip = 0;        // where it listens and sends from
    bool answering = true;  // false: receives nothing, sends nothing

    // Moves to a new address: a restarted controller, its message in flight abandoned.
    void restart_at(uint32_t new_ip, uint8_t first_trans);
    // Queues a message of its own; it leaves when the ones before it are done.
    void queue_msg(int32_t src, int32_t dst, std::vector<uint8_t> data, bool encrypt);
    void receive(uint64_t now_us, uint32_t dst_ip, const std::vector<uint8_t> &bytes);
    // Retransmission and the next message; call at next_at().
    void tick(uint64_t now_us);
    std::optional<uint64_t> next_at() const;
    bool idle() const { return tx_.queue.empty(); }

    // Every message it ever sent (by serial) and every one it received whole.
    std::map<uint64_t, CtrlMsg> sent;
    std::vector<ApMsg> received;
    // The serial of the message a data fragment belongs to (0: none of ours):
    // fragment 0 by the first bytes of its payload, later ones by their
    // transaction number, the latest message that had it.
    uint64_t serial_of(uint8_t frag, uint8_t trans, std::span<const uint8_t> payload) const;

private:
    void transmit_head(int tries);
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
