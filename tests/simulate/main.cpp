// Runs seeded fault-injection simulations of the daemon and reports any seed
// that breaks an invariant as "seed N: why", so it can be run again alone.
// Usage: simulate [--seeds N] [--first F] [--seed S]
//   --seeds N  run N seeds starting at F (default 100 from 1)
//   --seed S   run seed S alone (also $SIMULATE_SEED)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "scenario.h"

int main(int argc, char **argv) {
    uint64_t first = 1, count = 100;
    if (const char *s = std::getenv("SIMULATE_SEED")) {
        first = std::strtoull(s, nullptr, 10);
        count = 1;
    }
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            std::fprintf(stderr, "usage: %s [--seeds N] [--first F] [--seed S]\n", argv[0]);
            return 2;
        }
        const uint64_t v = std::strtoull(argv[++i], nullptr, 10);
        if (a == "--seeds") {
            count = v;
        } else if (a == "--first") {
            first = v;
        } else if (a == "--seed") {
            first = v;
            count = 1;
        } else {
            std::fprintf(stderr, "unknown option %s\n", a.c_str());
            return 2;
        }
    }
    // The daemon prints console lines (a new controller address, for one);
    // they go nowhere, the report goes to the original standard output.
    FILE *out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
    const auto t0 = std::chrono::steady_clock::now();
    simulate::Stats total;
    uint64_t failures = 0;
    for (uint64_t seed = first; seed < first + count; ++seed) {
        const simulate::Outcome o = simulate::run_seed(seed);
        total.add(o.stats);
        if (!o.ok) {
            ++failures;
            std::fprintf(out, "seed %llu: %s\n", static_cast<unsigned long long>(seed), o.why.c_str());
            std::fflush(out);
        }
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::fprintf(out, "%llu seeds (%llu..%llu), %llu failed, %.1f s; %.1f virtual hours\n",
                 static_cast<unsigned long long>(count), static_cast<unsigned long long>(first),
                 static_cast<unsigned long long>(first + count - 1), static_cast<unsigned long long>(failures), secs,
                 static_cast<double>(total.virtual_ms) / 3.6e6);
    std::fprintf(out,
                 "local messages %llu: answered ok %llu, failed %llu; controller messages %llu: deliveries %llu "
                 "(%llu repeated); link losses %llu; datagrams %llu\n",
                 static_cast<unsigned long long>(total.local_msgs), static_cast<unsigned long long>(total.answered_ok),
                 static_cast<unsigned long long>(total.answered_failed),
                 static_cast<unsigned long long>(total.ctrl_msgs), static_cast<unsigned long long>(total.deliveries),
                 static_cast<unsigned long long>(total.duplicate_deliveries),
                 static_cast<unsigned long long>(total.link_downs), static_cast<unsigned long long>(total.datagrams));
    std::fclose(out);
    return failures == 0 ? 0 : 1;
}
