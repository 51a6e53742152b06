#pragma once
// One seeded run: the daemon on the simulated platform against a controller
// model over a faulty link, local senders and receivers on IPC, and the
// invariants checked at the end.
#include <cstdint>
#include <string>

namespace simulate {

struct Stats {
    uint64_t local_msgs = 0, answered_ok = 0, answered_failed = 0;
    uint64_t ctrl_msgs = 0, deliveries = 0, duplicate_deliveries = 0;
    uint64_t link_downs = 0, datagrams = 0;
    uint64_t virtual_ms = 0;
    void add(const Stats &o);
};

struct Outcome {
    bool ok = true;
    std::string why;  // the first invariant broken
    Stats stats;
};

Outcome run_seed(uint64_t seed);

}  // namespace simulate
