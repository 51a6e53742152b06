// bench-eloop: accuracy of the platform event loop's timeouts. A timeout is
// armed again and again with --period-us; each expiry's lateness against its
// schedule (registration time + period) is recorded, while a UDP socket on
// loopback is kept busy with --traffic datagrams per expiry through the same
// loop. Prints "ELOOP n=.. period_us=.. median_us=.. p99_us=.. max_us=..".
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench/bench_common.h"
#include "platform/eloop.h"

namespace {

struct state {
    long want = 0;
    unsigned period_us = 0;
    uint64_t due = 0;
    std::vector<double> late_us;
    int tx = -1;
    sockaddr_in to{};
    long traffic = 0;
    long received = 0;
};

void on_read(int sock, void *ctx, void *) {
    auto *s = static_cast<state *>(ctx);
    char b[2048];
    while (recv(sock, b, sizeof b, MSG_DONTWAIT) > 0) ++s->received;
}

void on_timeout(void *ctx, void *) {
    auto *s = static_cast<state *>(ctx);
    uint64_t now = bench_now_ns();
    s->late_us.push_back(double(int64_t(now - s->due)) / 1000.0);
    if (long(s->late_us.size()) >= s->want) {
        vk_eloop_terminate();
        return;
    }
    char b[1036] = {};
    for (long i = 0; i < s->traffic; ++i)
        sendto(s->tx, b, sizeof b, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&s->to), sizeof s->to);
    s->due = bench_now_ns() + uint64_t(s->period_us) * 1000;
    vk_eloop_register_timeout(s->period_us / 1000000, s->period_us % 1000000, on_timeout, s, nullptr);
}

double pct(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    std::size_t i = std::min(v.size() - 1, std::size_t(p * double(v.size() - 1) + 0.5));
    return v[i];
}

}  // namespace

int main(int argc, char **argv) {
    bench_args a(argc, argv, 1);
    state s;
    s.want = a.num("--count", 500);
    s.period_us = unsigned(a.num("--period-us", 10000));
    s.traffic = a.num("--traffic", 4);
    if (vk_eloop_init(nullptr) != 0) return 1;
    int rx = socket(AF_INET, SOCK_DGRAM, 0);
    s.tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in me{};
    me.sin_family = AF_INET;
    me.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t ml = sizeof me;
    if (bind(rx, reinterpret_cast<sockaddr *>(&me), sizeof me) != 0 ||
        getsockname(rx, reinterpret_cast<sockaddr *>(&me), &ml) != 0)
        return 1;
    s.to = me;
    vk_eloop_register_read_sock(rx, on_read, &s, nullptr);
    s.due = bench_now_ns() + uint64_t(s.period_us) * 1000;
    vk_eloop_register_timeout(0, s.period_us, on_timeout, &s, nullptr);
    vk_eloop_run();
    if (s.late_us.empty()) return 1;
    std::printf("ELOOP n=%zu period_us=%u median_us=%.1f p99_us=%.1f max_us=%.1f received=%ld\n", s.late_us.size(),
                s.period_us, pct(s.late_us, 0.5), pct(s.late_us, 0.99), pct(s.late_us, 1.0), s.received);
    return 0;
}
