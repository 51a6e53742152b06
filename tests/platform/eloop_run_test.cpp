// The event loop on the real clock: timeouts that never fire early, sockets,
// handlers changing the tables, and the ways the loop ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/eloop.h"

namespace {

uint64_t now_us() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000 + uint64_t(ts.tv_nsec) / 1000;
}

std::vector<std::string> fired;

void record(void *, void *name) { fired.emplace_back(static_cast<const char *>(name)); }
void stop(void *, void *) { vk_eloop_terminate(); }

// A connected datagram pair, closed on exit.
struct SocketPair {
    std::array<int, 2> fd{-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fd.data()); }
    ~SocketPair() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;
    int reader() const { return fd[0]; }
    void send(const std::string &s) const { ASSERT_EQ(write(fd[1], s.data(), s.size()), ssize_t(s.size())); }
};

std::string read_all(int sock) {
    std::array<char, 64> buf{};
    const ssize_t n = read(sock, buf.data(), buf.size());
    return n > 0 ? std::string(buf.data(), std::size_t(n)) : std::string();
}

class EloopRun : public ::testing::Test {
protected:
    void SetUp() override {
        fired.clear();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
    }
    // Ends the run after a while even if what is tested never stops it.
    static void stop_after_ms(unsigned ms) {
        ASSERT_EQ(vk_eloop_register_timeout(ms / 1000, (ms % 1000) * 1000, stop, nullptr, nullptr), 0);
    }
};

struct Timed {
    Timed(unsigned s, unsigned us) : secs(s), usecs(us) {}
    unsigned secs, usecs;
    uint64_t registered_us = 0;
    std::vector<uint64_t> fired_us;
};

void note_time(void *, void *t) { static_cast<Timed *>(t)->fired_us.push_back(now_us()); }

TEST_F(EloopRun, TimeoutsFireOnceAndNeverEarly) {
    std::vector<Timed> timers = {{0, 0}, {0, 1000}, {0, 1500}, {0, 5000}, {0, 20000}, {1, 0}, {0, 999999}};
    for (Timed &t : timers) {
        t.registered_us = now_us();
        ASSERT_EQ(vk_eloop_register_timeout(t.secs, t.usecs, note_time, nullptr, &t), 0);
    }
    stop_after_ms(1100);
    vk_eloop_run();
    for (const Timed &t : timers) {
        SCOPED_TRACE(std::to_string(t.secs) + " s " + std::to_string(t.usecs) + " us");
        ASSERT_EQ(t.fired_us.size(), 1u);
        EXPECT_GE(t.fired_us[0] - t.registered_us, uint64_t(t.secs) * 1000000 + t.usecs);
    }
}

TEST_F(EloopRun, WaitingForATimeoutCostsNoCpu) {
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    stop_after_ms(200);
    vk_eloop_run();
    getrusage(RUSAGE_SELF, &after);
    const auto cpu_us = [](const rusage &r) {
        return uint64_t(r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000000 +
               uint64_t(r.ru_utime.tv_usec + r.ru_stime.tv_usec);
    };
    // A spinning loop would burn about the whole 200 ms.
    EXPECT_LT(cpu_us(after) - cpu_us(before), 50000u);
}

int rearmed = 0;
void rearm_five_times(void *, void *) {
    if (++rearmed < 5)
        vk_eloop_register_timeout(0, 1000, rearm_five_times, nullptr, nullptr);
    else
        vk_eloop_terminate();
}

TEST_F(EloopRun, HandlerRearmsItself) {
    rearmed = 0;
    ASSERT_EQ(vk_eloop_register_timeout(0, 0, rearm_five_times, nullptr, nullptr), 0);
    stop_after_ms(2000);
    vk_eloop_run();
    EXPECT_EQ(rearmed, 5);
    EXPECT_EQ(vk_eloop_cancel_timeout(rearm_five_times, VK_ELOOP_ANY, VK_ELOOP_ANY), 0);
    EXPECT_EQ(vk_eloop_cancel_timeout(stop, VK_ELOOP_ANY, VK_ELOOP_ANY), 1) << "the run ended before the safety stop";
}

struct ReadSeen {
    int sock = -1;
    void *eloop_ctx = nullptr, *sock_ctx = nullptr;
    std::string data;
};

void read_and_stop(int sock, void *e, void *s) {
    auto *seen = static_cast<ReadSeen *>(s);
    *seen = {sock, e, s, read_all(sock)};
    vk_eloop_terminate();
}

void read_wrongly(int sock, void *, void *) {
    read_all(sock);
    fired.emplace_back("replaced handler ran");
}

TEST_F(EloopRun, ReadableSocketCallsItsHandler) {
    SocketPair pair;
    ReadSeen seen;
    int eloop_ctx = 0;
    ASSERT_EQ(vk_eloop_register_read_sock(pair.reader(), read_wrongly, nullptr, nullptr), 0);
    // Registering again replaces the handler and its contexts.
    ASSERT_EQ(vk_eloop_register_read_sock(pair.reader(), read_and_stop, &eloop_ctx, &seen), 0);
    pair.send("ping");
    stop_after_ms(5000);
    vk_eloop_run();
    EXPECT_EQ(seen.sock, pair.reader());
    EXPECT_EQ(seen.eloop_ctx, &eloop_ctx);
    EXPECT_EQ(seen.data, "ping");
    EXPECT_TRUE(fired.empty());
}

void must_not_run(int sock, void *, void *) {
    read_all(sock);
    fired.emplace_back("unregistered handler ran");
}

TEST_F(EloopRun, UnregisteredSocketIsNotCalled) {
    SocketPair pair;
    ASSERT_EQ(vk_eloop_register_read_sock(pair.reader(), must_not_run, nullptr, nullptr), 0);
    vk_eloop_unregister_read_sock(pair.reader());
    pair.send("ignored");
    stop_after_ms(30);
    vk_eloop_run();
    EXPECT_TRUE(fired.empty());
}

int other_sock[2];
void read_and_unregister_other(int sock, void *, void *which) {
    const int me = *static_cast<int *>(which);
    read_all(sock);
    vk_eloop_unregister_read_sock(other_sock[1 - me]);
    fired.push_back("reader " + std::to_string(me));
}

TEST_F(EloopRun, HandlerUnregistersASocketReadyInTheSameRound) {
    SocketPair a, b;
    other_sock[0] = a.reader();
    other_sock[1] = b.reader();
    static int ids[2] = {0, 1};
    ASSERT_EQ(vk_eloop_register_read_sock(a.reader(), read_and_unregister_other, nullptr, &ids[0]), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(b.reader(), read_and_unregister_other, nullptr, &ids[1]), 0);
    // Both readable before the loop looks: one wait reports both.
    a.send("a");
    b.send("b");
    stop_after_ms(50);
    vk_eloop_run();
    EXPECT_EQ(fired.size(), 1u) << "whichever ran first took the other away";
}

// Each reader closes the other's socket and registers a fresh one that takes
// the same descriptor number. The closed socket's readiness, reported in the
// same round, must not reach the fresh socket's handler.
std::array<int, 4> fds_in_play = {-1, -1, -1, -1};  // reader and writer of a, then of b
void fresh_socket_read(int sock, void *, void *) {
    read_all(sock);
    fired.emplace_back("fresh socket's handler ran");
}
void replace_other(int sock, void *, void *which) {
    const std::size_t me = *static_cast<std::size_t *>(which), other = 2 * (1 - me);
    read_all(sock);
    vk_eloop_unregister_read_sock(fds_in_play[other]);
    close(fds_in_play[other]);
    close(fds_in_play[other + 1]);
    int fresh[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fresh), 0);
    ASSERT_EQ(fresh[0], fds_in_play[other]) << "the lowest free number is taken again";
    fds_in_play[other + 1] = fresh[1];
    vk_eloop_register_read_sock(fresh[0], fresh_socket_read, nullptr, nullptr);
    fired.push_back("reader " + std::to_string(me));
}

TEST_F(EloopRun, ReadinessOfAClosedSocketDoesNotReachItsSuccessor) {
    static std::size_t ids[2] = {0, 1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, &fds_in_play[0]), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, &fds_in_play[2]), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(fds_in_play[0], replace_other, nullptr, &ids[0]), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(fds_in_play[2], replace_other, nullptr, &ids[1]), 0);
    ASSERT_EQ(write(fds_in_play[1], "a", 1), 1);
    ASSERT_EQ(write(fds_in_play[3], "b", 1), 1);
    stop_after_ms(50);
    vk_eloop_run();
    for (int fd : fds_in_play) close(fd);
    EXPECT_EQ(fired.size(), 1u);
    EXPECT_EQ(std::count(fired.begin(), fired.end(), "fresh socket's handler ran"), 0);
}

TEST_F(EloopRun, TerminateEndsTheRun) {
    ASSERT_EQ(vk_eloop_register_timeout(0, 1000, stop, nullptr, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_timeout(5, 0, record, nullptr, const_cast<char *>("after stop")), 0);
    vk_eloop_run();
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY), 1);
}

TEST_F(EloopRun, TerminateBeforeRunEndsTheNextRunOnly) {
    ASSERT_EQ(vk_eloop_register_timeout(0, 0, record, nullptr, const_cast<char *>("due")), 0);
    vk_eloop_terminate();
    vk_eloop_run();
    EXPECT_TRUE(fired.empty());
    stop_after_ms(10);
    vk_eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"due"});
}

void send_signal(void *, void *sig) { kill(getpid(), *static_cast<int *>(sig)); }

TEST_F(EloopRun, TerminationSignalsEndTheRun) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(sig));
        fired.clear();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
        ASSERT_EQ(vk_eloop_register_timeout(0, 1000, send_signal, nullptr, &sig), 0);
        ASSERT_EQ(vk_eloop_register_timeout(1, 0, record, nullptr, const_cast<char *>("after signal")), 0);
        stop_after_ms(1100);
        vk_eloop_run();
        EXPECT_TRUE(fired.empty());
        vk_eloop_cancel_timeout(stop, VK_ELOOP_ANY, VK_ELOOP_ANY);
        // The signal was taken: the next run goes on until its own stop.
        vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY);
        ASSERT_EQ(vk_eloop_register_timeout(0, 1000, record, nullptr, const_cast<char *>("next run")), 0);
        stop_after_ms(10);
        vk_eloop_run();
        EXPECT_EQ(fired, std::vector<std::string>{"next run"});
    }
}

std::vector<int> signals_seen;
void note_signal(int sig, void *ctx) {
    signals_seen.push_back(sig);
    // Real work is allowed here: this runs in the loop, not in the signal's context.
    fired.emplace_back(static_cast<const char *>(ctx));
}

// Taken signals reach their handler from the loop, which goes on; ignored ones
// do nothing; neither ends the process as the default action would.
TEST_F(EloopRun, TakenSignalsRunTheirHandlerInTheLoop) {
    signals_seen.clear();
    ASSERT_EQ(vk_eloop_register_signal(SIGHUP, note_signal, const_cast<char *>("hup")), 0);
    ASSERT_EQ(vk_eloop_register_signal(SIGUSR1, note_signal, const_cast<char *>("usr1")), 0);
    ASSERT_EQ(vk_eloop_register_signal(SIGUSR2, nullptr, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_signal(SIGPIPE, nullptr, nullptr), 0);
    for (int sig : {SIGTERM, SIGINT, SIGKILL, 0, 65}) {
        SCOPED_TRACE(sig);
        EXPECT_EQ(vk_eloop_register_signal(sig, note_signal, nullptr), -1);
    }
    int hup = SIGHUP, usr1 = SIGUSR1, usr2 = SIGUSR2, pipe_sig = SIGPIPE;
    ASSERT_EQ(vk_eloop_register_timeout(0, 1000, send_signal, nullptr, &usr2), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 2000, send_signal, nullptr, &pipe_sig), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 3000, send_signal, nullptr, &hup), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 20000, send_signal, nullptr, &usr1), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 40000, record, nullptr, const_cast<char *>("still running")), 0);
    stop_after_ms(60);
    vk_eloop_run();
    EXPECT_EQ(signals_seen, (std::vector<int>{SIGHUP, SIGUSR1}));
    EXPECT_EQ(fired, (std::vector<std::string>{"hup", "usr1", "still running"}));

    // A new init forgets them: the default action is back.
    ASSERT_EQ(vk_eloop_init(nullptr), 0);
    struct sigaction now {};
    ASSERT_EQ(sigaction(SIGHUP, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

}  // namespace
