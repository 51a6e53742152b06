#pragma once
// The network between the access point and the controller: every datagram
// takes a delay of its own, so datagrams overtake each other when the delays
// differ; some are lost, some arrive twice. Faults are switched on and off
// by the scenario.
#include <cstdint>
#include <map>
#include <random>
#include <tuple>
#include <vector>

namespace simulate {

struct Faults {
    double loss = 0;           // chance a datagram is lost
    double dup = 0;            // chance a datagram arrives a second time
    uint64_t delay_us = 1000;  // least transit time
    uint64_t jitter_us = 0;    // extra transit time, uniform 0..jitter: reordering
};

struct InFlight {
    bool to_ap;               // else to the controller
    uint32_t src_ip, dst_ip;  // network order
    std::vector<uint8_t> bytes;
};

class LinkModel {
public:
    explicit LinkModel(std::mt19937_64 &rng) : rng_(rng) {}
    Faults faults;

    // A datagram leaves at now_us: lost, delivered once, or twice.
    void send(uint64_t now_us, InFlight d) {
        if (chance(faults.loss)) return;
        if (chance(faults.dup)) queue(now_us, d);
        queue(now_us, std::move(d));
    }
    bool empty() const { return q_.empty(); }
    uint64_t next_at() const { return q_.begin()->first.first; }
    // Takes the earliest datagram due at or before now_us.
    bool pop_due(uint64_t now_us, InFlight &out) {
        if (q_.empty() || q_.begin()->first.first > now_us) return false;
        out = std::move(q_.begin()->second);
        q_.erase(q_.begin());
        return true;
    }

private:
    bool chance(double p) { return p > 0 && std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
    void queue(uint64_t now_us, InFlight d) {
        uint64_t t = now_us + faults.delay_us;
        if (faults.jitter_us) t += std::uniform_int_distribution<uint64_t>(0, faults.jitter_us)(rng_);
        q_.emplace(std::make_pair(t, seq_++), std::move(d));
    }

    std::mt19937_64 &rng_;
    uint64_t seq_ = 0;
    std::map<std::pair<uint64_t, uint64_t>, InFlight> q_;  // (arrival, sequence): stable order
};

}  // namespace simulate
