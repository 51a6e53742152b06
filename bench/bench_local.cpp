// bench-local: a local endpoint that drives the daemon over IPC.
//   up   --count N --size S [--sizes S1,S2,..] [--window W] [--from 105]
//        sends N application messages of S bytes (outcome requested; with
//        --sizes, message i has size S(i mod k)) keeping at most W unanswered,
//        so the daemon always has the next one queued; prints "UP n=.. failed=..
//        dup=.. unknown=.. secs=.. rate=.." when every message has its outcome.
//        dup counts second outcomes of one message, unknown outcomes of none.
//   fill --count N --size S [--from 105]
//        sends N messages without waiting for outcomes; prints "FILL sent=N".
//   down --count N [--ep 101] [--timeout SEC] [--size S] [--alpha] [--linger SEC]
//        binds endpoint ep and counts messages from the controller; prints
//        "DOWN n=.. bad=.. extra=.. secs=.." (time from the first to the last).
//        Byte i of the data must be i*7+1, or 'a'+i%26 with --alpha (the
//        controller simulator's --size data). --linger keeps listening that long
//        after the N-th message: anything more is extra, a delivery too many.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "core/ipc_codes.h"
#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "relay/endpoint_table.h"

namespace {

constexpr int64_t NS = 1000000000;

const char *ep_path(long id) {
    const tovrin_app_ep_t *ep =
        id >= INT32_MIN && id <= INT32_MAX ? tovrin_app_ep_find(static_cast<int32_t>(id)) : nullptr;
    return ep != nullptr ? ep->path : nullptr;
}

bool open_ep(vk_ipc_handle_t &h, long id) {
    const char *p = ep_path(id);
    if (!p) {
        std::fprintf(stderr, "bench-local: no endpoint %ld\n", id);
        return false;
    }
    std::memset(&h, 0, sizeof h);
    std::snprintf(h.path, sizeof h.path, "%s", p);
    if (vk_ipc_open(&h) != 0) {
        std::fprintf(stderr, "bench-local: cannot open %s: %s\n", p, std::strerror(errno));
        return false;
    }
    return true;
}

// Waits up to ms for the endpoint to become readable, then reads one message.
// 1: a message in msg; 0: nothing in time; -1: error.
int recv_one(vk_ipc_handle_t &h, vk_ipc_msg_t &msg, int ms) {
    pollfd p{h.sock, POLLIN, 0};
    int r = poll(&p, 1, ms);
    if (r <= 0) return r < 0 && errno != EINTR ? -1 : 0;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(h.sock, &set);
    vk_ipc_recv_desc_t rec{};
    rec.handle = &h;
    rec.msg = &msg;
    uint8_t got = 0;
    if (vk_ipc_recv_large(&set, &rec, &got) != 0) return 0;  // refused datagram: skip it
    return got;
}

struct sender {
    vk_ipc_handle_t *h;
    vk_ipc_msg_t msg{};
    vk_ipc_send_desc_t desc{};
    sender(vk_ipc_handle_t *handle, long from, std::size_t size) : h(handle) {
        msg.type = TOVRIN_IPC_SEND_MSG;
        msg.flags = VK_IPC_F_NOTIFY;
        tovrin_app_msg_t a{};
        a.src_ep = int32_t(from);
        std::snprintf(a.src_name, sizeof a.src_name, "bench-local");
        a.flags = TOVRIN_MSG_F_ACK_REQ;
        a.dst_ep = 200;
        std::memcpy(msg.payload, &a, TOVRIN_APP_HDR_LEN);
        for (std::size_t i = 0; i < TOVRIN_APP_MAX_DATA; ++i) msg.payload[TOVRIN_APP_HDR_LEN + i] = uint8_t(i * 7 + 1);
        resize(size);
        desc.handle = h;
        desc.kind = VK_IPC_KIND_NOTIFY;
        desc.msg = &msg;
        std::strncpy(desc.peer, "/vk/ipc/tovrin", sizeof desc.peer - 1);
    }
    void resize(std::size_t size) {
        const auto len = uint32_t(size);
        std::memcpy(msg.payload + offsetof(tovrin_app_msg_t, len), &len, 4);
        msg.len = uint32_t(TOVRIN_APP_HDR_LEN + size);
    }
    // Non-blocking send; a full daemon queue is waited out briefly.
    bool send(uint32_t id) {
        std::memcpy(msg.payload + offsetof(tovrin_app_msg_t, id), &id, 4);
        for (int tries = 0; tries < 20000; ++tries) {
            if (vk_ipc_send_large(&desc) == 0) return true;
            if (errno != EAGAIN && errno != ENOBUFS) break;
            usleep(50);
        }
        std::fprintf(stderr, "bench-local: send failed: %s\n", std::strerror(errno));
        return false;
    }
};

// An outcome answer: an application message back at the sender, not a status report.
bool is_outcome(const vk_ipc_msg_t &m, tovrin_app_msg_t &a) {
    if (m.type != TOVRIN_IPC_APP_MSG || m.len < TOVRIN_APP_HDR_LEN) return false;
    std::memcpy(&a, m.payload, TOVRIN_APP_HDR_LEN);
    return (a.flags & TOVRIN_MSG_F_STATUS) == 0 && (a.flags & TOVRIN_MSG_F_FROM_CTRL) == 0;
}

// "16,1024,4096": the sizes, each within what one IPC message carries.
bool parse_sizes(const std::string &text, std::vector<std::size_t> &out) {
    out.clear();
    const char *p = text.c_str();
    while (*p != '\0') {
        char *end = nullptr;
        const long v = std::strtol(p, &end, 10);
        if (end == p || v < 0 || std::size_t(v) > TOVRIN_APP_MAX_DATA) return false;
        out.push_back(std::size_t(v));
        p = *end == ',' ? end + 1 : end;
        if (*end != ',' && *end != '\0') return false;
    }
    return !out.empty();
}

int run_up(const bench_args &a) {
    long n = a.num("--count", 1000), size = a.num("--size", 16), window = a.num("--window", 8);
    long from = a.num("--from", 105);
    std::vector<std::size_t> sizes{std::size_t(size)};
    if (a.flag("--sizes") && !parse_sizes(a.str("--sizes", ""), sizes)) {
        std::fprintf(stderr, "bench-local: bad --sizes\n");
        return 64;
    }
    vk_ipc_handle_t h;
    if (!open_ep(h, from)) return 1;
    sender s(&h, from, sizes[0]);
    static vk_ipc_msg_t in;
    // Every message must get exactly one outcome: ids are the send order.
    std::vector<uint8_t> answered(std::size_t(n), 0);
    long sent = 0, done = 0, failed = 0, dup = 0, unknown = 0;
    uint64_t t0 = bench_now_ns();
    while (done < n) {
        while (sent < n && sent - done < window) {
            s.resize(sizes[std::size_t(sent) % sizes.size()]);
            if (!s.send(uint32_t(sent))) return 1;
            ++sent;
        }
        int r = recv_one(h, in, 10000);
        if (r < 0) return 1;
        if (r == 0) {
            std::fprintf(stderr, "bench-local: no outcome for 10 s (%ld of %ld answered)\n", done, n);
            return 1;
        }
        tovrin_app_msg_t ans;
        if (!is_outcome(in, ans)) continue;
        if (ans.id >= uint32_t(sent)) {
            ++unknown;
            continue;
        }
        if (answered[ans.id]++ != 0) {
            ++dup;
            continue;
        }
        ++done;
        if (ans.flags & TOVRIN_MSG_F_FAILED) ++failed;
    }
    double secs = double(bench_now_ns() - t0) / NS;
    std::printf("UP n=%ld failed=%ld dup=%ld unknown=%ld size=%ld secs=%.6f rate=%.1f\n", done, failed, dup, unknown,
                long(sizes[0]), secs, double(done) / secs);
    vk_ipc_close(&h);
    return failed == 0 && dup == 0 && unknown == 0 ? 0 : 2;
}

int run_fill(const bench_args &a) {
    long n = a.num("--count", 1000), size = a.num("--size", 16), from = a.num("--from", 105);
    vk_ipc_handle_t h;
    if (!open_ep(h, from)) return 1;
    sender s(&h, from, std::size_t(size));
    for (long i = 0; i < n; ++i)
        if (!s.send(uint32_t(i))) return 1;
    std::printf("FILL sent=%ld size=%ld\n", n, size);
    std::fflush(stdout);
    // Stays bound so the answers (failures at link loss) have somewhere to go.
    if (a.flag("--hold")) pause();
    vk_ipc_close(&h);
    return 0;
}

int run_down(const bench_args &a) {
    long n = a.num("--count", 1000), ep = a.num("--ep", 101), timeout = a.num("--timeout", 30);
    long size = a.num("--size", -1), linger = a.num("--linger", 0);
    const bool alpha = a.flag("--alpha");
    vk_ipc_handle_t h;
    if (!open_ep(h, ep)) return 1;
    std::printf("LISTENING ep=%ld\n", ep);
    std::fflush(stdout);
    static vk_ipc_msg_t in;
    long got = 0, bad = 0, extra = 0;
    uint64_t first = 0, last = 0;
    for (;;) {
        const bool lingering = got >= n;
        if (lingering && linger <= 0) break;
        int r = recv_one(h, in, int((lingering ? linger : timeout) * 1000));
        if (r < 0) return 1;
        if (r == 0) break;
        tovrin_app_msg_t m;
        if (in.type != TOVRIN_IPC_APP_MSG || in.len < TOVRIN_APP_HDR_LEN) continue;
        std::memcpy(&m, in.payload, TOVRIN_APP_HDR_LEN);
        if (!(m.flags & TOVRIN_MSG_F_FROM_CTRL)) continue;
        if (lingering) {
            ++extra;
            continue;
        }
        last = bench_now_ns();
        if (got == 0) first = last;
        ++got;
        // A message of another length or content is bad.
        bool ok = m.len == in.len - TOVRIN_APP_HDR_LEN && (size < 0 || long(m.len) == size);
        for (uint32_t i = 0; ok && i < m.len; i += 97) {
            const uint8_t want = alpha ? uint8_t('a' + i % 26) : uint8_t(i * 7 + 1);
            ok = in.payload[TOVRIN_APP_HDR_LEN + i] == want;
        }
        if (!ok) ++bad;
    }
    double secs = got > 1 ? double(last - first) / NS : 0;
    std::printf("DOWN n=%ld bad=%ld extra=%ld secs=%.6f\n", got, bad, extra, secs);
    vk_ipc_close(&h);
    return got == n && bad == 0 && extra == 0 ? 0 : 2;
}

}  // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: bench-local up|fill|down [--count N] [--size S] [--window W] [--from ID] [--ep ID]\n");
        return 64;
    }
    bench_args a(argc, argv, 2);
    std::string mode = argv[1];
    if (mode == "up") return run_up(a);
    if (mode == "fill") return run_fill(a);
    if (mode == "down") return run_down(a);
    std::fprintf(stderr, "bench-local: unknown mode %s\n", mode.c_str());
    return 64;
}
