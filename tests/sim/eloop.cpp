// The event loop on the virtual clock: the real one's ordering (at each instant
// the timeouts due, then the sockets ready), but time jumps to the next expiry.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <set>
#include <utility>

#include "platform/eloop.h"
#include "tests/sim/world.h"

namespace sim {
namespace {

// Within vk_eloop_run a termination stops dispatch, as it stops the real one.
bool in_run = false;
bool stopped() { return in_run && world().terminate; }

bool still_pending(int fd, uint64_t seq) {
    const Socket *s = find_socket(fd);
    return s && std::any_of(s->input.begin(), s->input.end(), [seq](const Pending &p) { return p.seq == seq; });
}

// False when fd has no handler in socks any more or the loop is stopped.
bool call(const std::map<int, SockReg> &socks, int fd) {
    auto it = socks.find(fd);
    if (stopped() || it == socks.end()) return false;
    const SockReg r = it->second;
    r.handler(fd, r.ctx1, r.ctx2);
    return true;
}

// Read handlers once per pending datagram in injection order, then write
// handlers of sockets with room, again until a round reads, sends and
// (un)registers nothing: a handler that never reads cannot hang the world.
void handle_sockets() {
    World &w = world();
    for (bool acted = true; acted && !stopped();) {
        acted = false;
        std::vector<std::pair<uint64_t, int>> due;
        for (const auto &[fd, rs] : w.read_socks)
            if (const Socket *s = find_socket(fd))
                for (const Pending &p : s->input) due.emplace_back(p.seq, fd);
        std::sort(due.begin(), due.end());
        // Earlier callbacks may have read it, closed fd or unregistered it.
        for (const auto &[seq, fd] : due)
            if (still_pending(fd, seq) && call(w.read_socks, fd)) acted = acted || !still_pending(fd, seq);
        std::vector<int> ready;
        for (const auto &[fd, ws] : w.write_socks)
            if (writable(fd)) ready.push_back(fd);
        for (int fd : ready) {
            const std::size_t sends = w.ipc_sent.size() + w.udp_sent.size(), regs = w.write_socks.size();
            if (writable(fd) && call(w.write_socks, fd))
                acted = acted || sends != w.ipc_sent.size() + w.udp_sent.size() || regs != w.write_socks.size();
        }
    }
}

// Every signal raised so far, each taken one once, in number order as the real
// loop does; a termination wins over the others.
void deliver_signals() {
    World &w = world();
    const std::set<int> raised = std::exchange(w.raised, {});
    if (raised.count(SIGTERM) || raised.count(SIGINT)) w.terminate = true;
    for (int sig : raised) {
        if (w.terminate) return;
        auto it = w.signals.find(sig);
        if (it != w.signals.end() && it->second.handler) it->second.handler(sig, it->second.ctx);
    }
}

// As in the real loop, a timeout registered during this pass with no delay waits
// for the next one. Each is removed before its call, so it may re-arm or cancel.
void run_due_timeouts() {
    World &w = world();
    const uint64_t seq_limit = w.next_seq;
    while (!stopped() && !w.timeouts.empty()) {
        const auto [expiry, t] = *w.timeouts.begin();
        if (expiry > w.now_us || t.seq >= seq_limit) return;
        w.timeouts.erase(w.timeouts.begin());
        t.handler(t.ctx1, t.ctx2);
    }
}

// One pass at the current instant, then the clock to the next expiry; false
// when it cannot move (nothing pending, or the next past end).
bool pass_and_advance(uint64_t end) {
    World &w = world();
    deliver_signals();
    if (!stopped()) run_due_timeouts();
    if (!stopped()) handle_sockets();
    if (stopped() || w.timeouts.empty() || w.timeouts.begin()->first > end) return false;
    w.now_us = std::max(w.now_us, w.timeouts.begin()->first);
    return true;
}

// Registering again replaces the handler and contexts, as in the real loop.
int register_sock(std::map<int, SockReg> &socks, int sock, vk_eloop_sock_handler handler, void *ctx1, void *ctx2) {
    if (sock < 0 || !handler) return fail(EINVAL);
    if (!find_socket(sock)) return fail(EBADF);  // not of the world: epoll would refuse it too
    socks[sock] = SockReg{handler, ctx1, ctx2};
    return 0;
}

}  // namespace

uint64_t now_us() { return world().now_us; }

void run_for(uint64_t us) {
    World &w = world();
    const uint64_t end = w.now_us + us;
    while (pass_and_advance(end)) continue;
    w.now_us = end;
}

void raise_signal(int sig) { world().raised.insert(sig); }

std::size_t pending_timeouts() { return world().timeouts.size(); }

std::size_t pending_timeouts(vk_eloop_timeout_handler h) {
    const auto &ts = world().timeouts;
    return std::count_if(ts.begin(), ts.end(), [h](const auto &e) { return e.second.handler == h; });
}

std::optional<uint64_t> next_timeout_of(vk_eloop_timeout_handler h) {
    for (const auto &[expiry, t] : world().timeouts)
        if (t.handler == h) return expiry;
    return std::nullopt;
}

}  // namespace sim

using sim::fail;
using sim::world;

// As the real loop: calling it again starts afresh, but clock and sockets stay.
int vk_eloop_init(void *) {
    sim::World &w = world();
    w.terminate = false;
    w.timeouts.clear();
    w.read_socks.clear();
    w.signals.clear();
    w.write_socks.clear();
    return 0;
}

int vk_eloop_register_signal(int sig, vk_eloop_signal_handler handler, void *ctx) {
    if (sig <= 0 || sig > 64 || sig == SIGTERM || sig == SIGINT || sig == SIGKILL || sig == SIGSTOP)
        return fail(EINVAL);
    world().signals[sig] = sim::SignalReg{handler, ctx};
    return 0;
}

int vk_eloop_register_read_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx) {
    return sim::register_sock(world().read_socks, sock, handler, eloop_ctx, sock_ctx);
}

void vk_eloop_unregister_read_sock(int sock) { world().read_socks.erase(sock); }

int vk_eloop_register_write_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx) {
    return sim::register_sock(world().write_socks, sock, handler, eloop_ctx, sock_ctx);
}

void vk_eloop_unregister_write_sock(int sock) { world().write_socks.erase(sock); }

int vk_eloop_register_timeout(unsigned int secs, unsigned int usecs, vk_eloop_timeout_handler handler, void *eloop_ctx,
                              void *user_ctx) {
    if (!handler) return fail(EINVAL);
    const uint64_t expiry = world().now_us + uint64_t{secs} * 1000000 + usecs;
    world().timeouts.emplace(expiry, sim::Timeout{world().next_seq++, handler, eloop_ctx, user_ctx});
    return 0;
}

int vk_eloop_cancel_timeout(vk_eloop_timeout_handler handler, void *eloop_ctx, void *user_ctx) {
    const auto matches = [](void *want, void *have) { return want == VK_ELOOP_ANY || want == have; };
    return static_cast<int>(std::erase_if(world().timeouts, [&](const auto &e) {
        const sim::Timeout &t = e.second;
        return t.handler == handler && matches(eloop_ctx, t.ctx1) && matches(user_ctx, t.ctx2);
    }));
}

// Runs until terminated or until nothing can happen any more.
void vk_eloop_run(void) {
    sim::World &w = world();
    sim::in_run = true;
    while (!w.terminate && sim::pass_and_advance(UINT64_MAX)) continue;
    sim::in_run = w.terminate = false;
}

void vk_eloop_terminate(void) { world().terminate = true; }
