// Event loop on epoll and CLOCK_MONOTONIC, one thread. Handlers may change the
// socket and timeout tables while they run, so nothing here holds an iterator
// across a call to a handler.
#include "platform/eloop.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/linux/eloop_clock.h"

namespace {

struct Timeout {
    uint64_t due_ns;
    uint64_t seq;  // registration order
    vk_eloop_timeout_handler handler;
    void *eloop_ctx;
    void *user_ctx;
};

struct Watch {
    vk_eloop_sock_handler handler;  // null: not watched this way
    void *eloop_ctx;
    void *sock_ctx;
};

// One entry per descriptor, for reading, writing or both.
struct Sock {
    int sock;
    uint32_t gen;  // tells a registration apart from an earlier one of the same fd
    Watch read, write;
};

constexpr uint64_t NS_PER_S = 1000000000;
constexpr uint64_t NS_PER_US = 1000;
constexpr uint64_t NS_PER_MS = 1000000;
// Enough for the daemon's steady state; the table only grows past it when full.
constexpr std::size_t TIMEOUT_RESERVE = 256;
constexpr int MAX_EVENTS = 32;
// epoll tag of the signal pipe; a socket tag is never all ones since fds are >= 0.
constexpr uint64_t SIGNAL_TAG = UINT64_MAX;

int epfd = -1;
// A caught signal writes its number here as one byte. Made once and never
// closed: a signal may arrive at any moment, and must never write into a
// reused descriptor.
int sig_pipe[2] = {-1, -1};
// Handlers of the signals taken with vk_eloop_register_signal, by number.
struct SignalSlot {
    vk_eloop_signal_handler handler;
    void *ctx;
    bool caught;  // our writer is installed for it
};
std::array<SignalSlot, 65> signal_slots{};
bool terminating = false;
// epoll_pwait2 (Linux 5.11) is tried first where the C library declares it
// (TOVRIN_HAVE_EPOLL_PWAIT2, found by the build; musl 1.2.3 does not); an
// older kernel answers ENOSYS once and the millisecond call is used from then on.
#ifdef TOVRIN_HAVE_EPOLL_PWAIT2
bool have_pwait2 = true;
#endif
uint64_t next_seq = 0;
uint32_t next_gen = 0;
// A table on the heap that doubles when full: a vector's interface, on plain
// memory, as the daemon links without the C++ runtime. Growth that fails
// returns false and leaves the table as it was. Records are trivially copyable.
template <typename T>
struct Table {
    T *at = nullptr;
    std::size_t size = 0, cap = 0;

    T *begin() { return at; }
    T *end() { return at + size; }
    bool empty() const { return size == 0; }
    T &front() { return at[0]; }
    void clear() { size = 0; }
    bool reserve(std::size_t n) {
        if (n <= cap) return true;
        T *bigger = static_cast<T *>(std::realloc(at, n * sizeof(T)));
        if (!bigger) return false;
        at = bigger;
        cap = n;
        return true;
    }
    bool insert(T *pos, const T &t) {
        const std::size_t i = std::size_t(pos - at);
        if (size == cap && !reserve(cap ? cap * 2 : 8)) return false;
        if (i < size) std::memmove(at + i + 1, at + i, (size - i) * sizeof(T));
        at[i] = t;
        ++size;
        return true;
    }
    bool push_back(const T &t) { return insert(end(), t); }
    void erase(T *first, T *last) {
        std::memmove(first, last, std::size_t(end() - last) * sizeof(T));
        size -= std::size_t(last - first);
    }
    void erase(T *pos) { erase(pos, pos + 1); }
};

// Earliest expiry first, and among equal expiries the earliest registered.
// A new timeout is nearly always the latest (a retransmission or keepalive a
// second ahead), so registering one appends it and cancelling it on the
// acknowledgement moves nothing; firing, once a second or so, takes the front.
Table<Timeout> timeouts;
Table<Sock> socks;
vk_eloop_clock_fn clock_fn = nullptr;

uint64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * NS_PER_S + uint64_t(ts.tv_nsec);
}

uint64_t now_ns() { return clock_fn ? clock_fn() : monotonic_ns(); }

uint64_t sock_tag(const Sock &r) { return (uint64_t(r.gen) << 32) | uint32_t(r.sock); }

// A plain loop: the table holds two or three sockets, too few for an unrolled search to pay.
Sock *find_sock(int sock) {
    Sock *r = socks.begin();
    while (r != socks.end() && r->sock != sock) ++r;
    return r;
}

uint32_t events_of(const Sock &r) { return (r.read.handler ? EPOLLIN : 0u) | (r.write.handler ? EPOLLOUT : 0u); }

// Installs a new watch of sock (which of the two: the member w), or removes it
// when its handler is null, and tells epoll. 0, or -1 with errno.
int set_watch(int sock, Watch Sock::*w, const Watch &watch) {
    auto it = find_sock(sock);
    if (it == socks.end()) {
        if (!watch.handler) return 0;
        Sock r{sock, 0, {}, {}};
        if (!socks.push_back(r)) {
            errno = ENOMEM;
            return -1;
        }
        it = socks.end() - 1;
    }
    const Sock old = *it;
    Sock r = old;
    r.*w = watch;
    r.gen = ++next_gen;
    epoll_event ev{};
    ev.events = events_of(r);
    ev.data.u64 = sock_tag(r);
    const bool was = events_of(old) != 0;
    if (ev.events == 0) {
        socks.erase(it);
        // Fails harmlessly when the socket was already closed.
        epoll_ctl(epfd, EPOLL_CTL_DEL, sock, nullptr);
        return 0;
    }
    // The fd may have been closed and reused since: then it is new to epoll.
    if (!was || epoll_ctl(epfd, EPOLL_CTL_MOD, sock, &ev) != 0) {
        if ((was && errno != ENOENT) || epoll_ctl(epfd, EPOLL_CTL_ADD, sock, &ev) != 0) {
            if (!was) socks.erase(it);
            return -1;
        }
    }
    *it = r;
    return 0;
}

// A registration of either kind: refused before the loop is set up, for a
// negative descriptor or without a handler.
int register_watch(int sock, Watch Sock::*w, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx) {
    if (epfd < 0 || sock < 0 || !handler) {
        errno = EINVAL;
        return -1;
    }
    return set_watch(sock, w, Watch{handler, eloop_ctx, sock_ctx});
}

// All the handler does; the loop sees the pipe readable and stops.
void on_signal(int sig) {
    const int saved = errno;
    const char byte = char(sig);
    if (write(sig_pipe[1], &byte, 1) < 0) {
        // Pipe full: a byte is already waiting, which is enough.
    }
    errno = saved;
}

// A self-pipe rather than blocked signals and a signalfd: a blocked mask would
// be inherited by anything the daemon starts, while a handler is reset at exec.
int catch_termination_signals() {
    if (sig_pipe[0] < 0 && pipe2(sig_pipe, O_NONBLOCK | O_CLOEXEC) != 0) return -1;
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0) return -1;
    return 0;
}

// Waits for sockets or the next expiry. Never returns before that expiry on a
// timeout: epoll_pwait2 takes it exactly, the millisecond fallback rounds up.
int wait_events(std::array<epoll_event, MAX_EVENTS> &events) {
    const bool forever = timeouts.empty();
    uint64_t remaining = 0;
    if (!forever) {
        const uint64_t due = timeouts.front().due_ns;
        const uint64_t now = now_ns();
        remaining = due > now ? due - now : 0;
    }
#ifdef TOVRIN_HAVE_EPOLL_PWAIT2
    if (have_pwait2) {
        timespec ts{time_t(remaining / NS_PER_S), long(remaining % NS_PER_S)};
        const int n = epoll_pwait2(epfd, events.data(), MAX_EVENTS, forever ? nullptr : &ts, nullptr);
        if (n >= 0 || errno != ENOSYS) return n;
        have_pwait2 = false;
    }
#endif
    int ms = -1;
    if (!forever) ms = int(std::min<uint64_t>((remaining + NS_PER_MS - 1) / NS_PER_MS, INT_MAX));
    return epoll_pwait(epfd, events.data(), MAX_EVENTS, ms, nullptr);
}

// Runs what is due now. Timeouts registered during this pass wait for the next
// one, so a handler re-arming itself with no delay cannot starve the sockets.
void run_due_timeouts() {
    const uint64_t now = now_ns();
    const uint64_t seq_limit = next_seq;
    while (!terminating && !timeouts.empty()) {
        if (timeouts.front().due_ns > now || timeouts.front().seq >= seq_limit) break;
        const Timeout t = timeouts.front();
        timeouts.erase(timeouts.begin());  // before the call: the handler may cancel or re-arm
        t.handler(t.eloop_ctx, t.user_ctx);
    }
}

// Reads every signal byte waiting; a termination wins over the others, which
// run their handlers once each, in number order.
void drain_signals() {
    std::array<char, 64> buf;
    std::array<bool, 65> arrived{};
    ssize_t n;
    while ((n = read(sig_pipe[0], buf.data(), buf.size())) > 0)
        for (ssize_t i = 0; i < n; ++i) {
            const auto sig = std::size_t(uint8_t(buf[std::size_t(i)]));
            if (sig == SIGTERM || sig == SIGINT) terminating = true;
            if (sig < arrived.size()) arrived[sig] = true;
        }
    for (std::size_t sig = 1; sig < arrived.size() && !terminating; ++sig) {
        const SignalSlot s = signal_slots[sig];
        if (arrived[sig] && s.handler) s.handler(int(sig), s.ctx);
    }
}

void forget_signals() {
    for (std::size_t sig = 1; sig < signal_slots.size(); ++sig)
        if (signal_slots[sig].caught) signal(int(sig), SIG_DFL);
    signal_slots = {};
}

void dispatch(const epoll_event &ev) {
    if (ev.data.u64 == SIGNAL_TAG) {
        drain_signals();
        return;
    }
    const int fd = int(uint32_t(ev.data.u64));
    const uint32_t gen = uint32_t(ev.data.u64 >> 32);
    // An error or hang-up wakes whichever watch there is, whose call then sees it.
    const bool err = ev.events & (EPOLLERR | EPOLLHUP);
    const bool readable = err || (ev.events & EPOLLIN), writable = err || (ev.events & EPOLLOUT);
    // Unregistered or replaced by a handler that ran earlier in this round.
    auto it = find_sock(fd);
    if (it == socks.end() || it->gen != gen || terminating) return;
    if (readable && it->read.handler) {
        const Watch watch = it->read;
        watch.handler(fd, watch.eloop_ctx, watch.sock_ctx);
        // The handler may have changed the table: the write watch is looked up again.
        if (!writable) return;
        it = find_sock(fd);
        if (it == socks.end() || it->gen != gen || terminating) return;
    }
    const Watch watch = it->write;
    if (writable && watch.handler) watch.handler(fd, watch.eloop_ctx, watch.sock_ctx);
}

}  // namespace

void vk_eloop_set_clock(vk_eloop_clock_fn fn) { clock_fn = fn; }

// Calling it again starts afresh: no sockets, no timeouts, not terminating.
int vk_eloop_init(void *) {
    if (epfd >= 0) close(epfd);
    epfd = -1;
    timeouts.clear();
    socks.clear();
    terminating = false;
    forget_signals();
    if (!timeouts.reserve(TIMEOUT_RESERVE)) return -1;
    epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) return -1;
    // Caught rather than fatal: the loop returns and the daemon says why it stops.
    // One that arrives before vk_eloop_run waits in the pipe and ends the run.
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = SIGNAL_TAG;
    if (catch_termination_signals() != 0 || epoll_ctl(epfd, EPOLL_CTL_ADD, sig_pipe[0], &ev) != 0) {
        close(epfd);
        epfd = -1;
        return -1;
    }
    return 0;
}

int vk_eloop_register_signal(int sig, vk_eloop_signal_handler handler, void *ctx) {
    if (sig <= 0 || std::size_t(sig) >= signal_slots.size() || sig == SIGTERM || sig == SIGINT || sig == SIGKILL ||
        sig == SIGSTOP || sig_pipe[1] < 0) {
        errno = EINVAL;
        return -1;
    }
    struct sigaction sa {};
    sa.sa_handler = handler ? on_signal : SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(sig, &sa, nullptr) != 0) return -1;
    signal_slots[std::size_t(sig)] = SignalSlot{handler, ctx, true};
    return 0;
}

// Registering a socket again replaces its handler and contexts.
int vk_eloop_register_read_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx) {
    return register_watch(sock, &Sock::read, handler, eloop_ctx, sock_ctx);
}

void vk_eloop_unregister_read_sock(int sock) { set_watch(sock, &Sock::read, Watch{}); }

int vk_eloop_register_write_sock(int sock, vk_eloop_sock_handler handler, void *eloop_ctx, void *sock_ctx) {
    return register_watch(sock, &Sock::write, handler, eloop_ctx, sock_ctx);
}

void vk_eloop_unregister_write_sock(int sock) { set_watch(sock, &Sock::write, Watch{}); }

int vk_eloop_register_timeout(unsigned int secs, unsigned int usecs, vk_eloop_timeout_handler handler, void *eloop_ctx,
                              void *user_ctx) {
    if (!handler) {
        errno = EINVAL;
        return -1;
    }
    const uint64_t due = now_ns() + uint64_t(secs) * NS_PER_S + uint64_t(usecs) * NS_PER_US;
    const Timeout t{due, next_seq++, handler, eloop_ctx, user_ctx};
    // Behind every equal expiry: those were registered earlier and run first.
    // Searched from the end, where a new timeout nearly always belongs.
    Timeout *pos = timeouts.end();
    while (pos != timeouts.begin() && (pos - 1)->due_ns > due) --pos;
    if (!timeouts.insert(pos, t)) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int vk_eloop_cancel_timeout(vk_eloop_timeout_handler handler, void *eloop_ctx, void *user_ctx) {
    const bool any_eloop = eloop_ctx == VK_ELOOP_ANY, any_user = user_ctx == VK_ELOOP_ANY;
    // The others keep their order, so equal expiries still run as registered.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < timeouts.size; ++i) {
        const Timeout &t = timeouts.at[i];
        if (t.handler == handler && (any_eloop || t.eloop_ctx == eloop_ctx) && (any_user || t.user_ctx == user_ctx))
            continue;
        if (kept != i) timeouts.at[kept] = t;
        ++kept;
    }
    const int removed = int(timeouts.size - kept);
    timeouts.size = kept;
    return removed;
}

// A terminate issued before run makes it return at once; either way the flag
// is cleared on return so that the loop can be run again.
void vk_eloop_run(void) {
    std::array<epoll_event, MAX_EVENTS> events;
    while (!terminating) {
        const int n = wait_events(events);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;  // the loop cannot wait any more: the caller stops
        }
        run_due_timeouts();
        for (int i = 0; i < n && !terminating; ++i) dispatch(events[std::size_t(i)]);
    }
    terminating = false;
}

void vk_eloop_terminate(void) { terminating = true; }
