// The event loop: timeout order and cancellation on a clock the test moves by
// hand, so that several timeouts share exactly one expiry; then sockets and
// signals on the real clock.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "platform/linux/eloop_clock.h"

namespace {

std::vector<std::string> fired;
char *name(const char *n) { return const_cast<char *>(n); }
void record(void *, void *n) { fired.emplace_back(static_cast<const char *>(n)); }
void stop(void *, void *) { vk_eloop_terminate(); }
// Record their two contexts, each a single letter.
void record_pair(void *e, void *u) { fired.push_back({*static_cast<char *>(e), *static_cast<char *>(u)}); }
void record_other(void *e, void *u) { fired.push_back({'o', *static_cast<char *>(e), *static_cast<char *>(u)}); }

uint64_t fake_now_ns = 0;
uint64_t fake_clock() { return fake_now_ns; }

class EloopOnHandClock : public ::testing::Test {
protected:
    void SetUp() override { vk_eloop_set_clock(fake_clock), restart(); }
    void TearDown() override { vk_eloop_set_clock(nullptr); }
    static void restart() {
        fake_now_ns = 1000000000000;
        fired.clear();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
    }
    // Moves the clock secs ahead and runs all that is due; the stop, registered last, runs last.
    static void run_for(unsigned secs) {
        ASSERT_EQ(vk_eloop_register_timeout(secs, 0, stop, nullptr, nullptr), 0);
        fake_now_ns += secs * uint64_t{1000000000};
        vk_eloop_run();
    }
};

TEST_F(EloopOnHandClock, ExpiryOrderThenRegistrationOrderAsTheTableGrows) {
    // Far more than the loop keeps room for up front, on three expiries: 1 s, 0.5 s, 0.
    const unsigned usecs[3] = {1000000, 500000, 0};
    std::vector<std::string> names(1000), expected;
    for (std::size_t i = 0; i < names.size(); ++i) {
        names[i] = std::to_string(i);
        ASSERT_EQ(vk_eloop_register_timeout(usecs[i % 3] / 1000000, usecs[i % 3] % 1000000, record, nullptr, names[i].data()), 0);
    }
    for (std::size_t slot : {2, 1, 0})
        for (std::size_t i = slot; i < names.size(); i += 3) expected.push_back(names[i]);
    run_for(2);
    run_for(2);  // one-shot: nothing again
    EXPECT_EQ(fired, expected);
}

TEST_F(EloopOnHandClock, CancelRemovesEveryMatchAndCountsThem) {
    static char A = 'A', B = 'B', C = 'C', D = 'D';
    void *const any = VK_ELOOP_ANY;
    struct Case {
        vk_eloop_timeout_handler handler;
        void *eloop_ctx, *user_ctx;
        int removed = 0;
        std::vector<std::string> fired = {};
    };
    const std::vector<std::string> all = {"AB", "AB", "AC", "DB", "oAB"};
    const Case cases[] = {
        {record_pair, &A, &B, 2, {"AC", "DB", "oAB"}},
        {record_pair, any, &B, 3, {"AC", "oAB"}},
        {record_pair, &A, any, 3, {"DB", "oAB"}},
        {record_pair, any, any, 4, {"oAB"}},
        {record_pair, &D, &C, 0, all},
        {record_pair, nullptr, nullptr, 0, all},  // null is no wildcard
        {record_pair, &A, nullptr, 0, all},
        {record_pair, nullptr, &B, 0, all},
        {record_other, &A, &B, 1, {"AB", "AB", "AC", "DB"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        restart();
        for (const Case &r : {Case{record_pair, &A, &B}, {record_pair, &A, &B}, {record_pair, &A, &C},
                              {record_pair, &D, &B}, {record_other, &A, &B}})
            ASSERT_EQ(vk_eloop_register_timeout(1, 0, r.handler, r.eloop_ctx, r.user_ctx), 0);
        EXPECT_EQ(vk_eloop_cancel_timeout(c.handler, c.eloop_ctx, c.user_ctx), c.removed);
        EXPECT_EQ(vk_eloop_cancel_timeout(c.handler, c.eloop_ctx, c.user_ctx), 0) << "removed once only";
        run_for(2);
        EXPECT_EQ(fired, c.fired);
    }
}

void cancel_records_and_self(void *, void *) {
    const int records = vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY);
    const int selves = vk_eloop_cancel_timeout(cancel_records_and_self, VK_ELOOP_ANY, VK_ELOOP_ANY);
    fired.push_back("cancelled " + std::to_string(records) + "+" + std::to_string(selves));
}

TEST_F(EloopOnHandClock, HandlerCancelsOthersAndItselfInTheSamePass) {
    // All are due when the loop looks; the canceller at 2 s must still stop
    // those at 3 s and its own second instance at 4 s, but not count itself.
    const std::pair<unsigned, const char *> regs[] = {{1, "x"}, {2, nullptr}, {3, "y"}, {3, "z"}, {4, nullptr}};
    for (const auto &[secs, n] : regs)
        ASSERT_EQ(vk_eloop_register_timeout(secs, 0, n ? record : cancel_records_and_self, nullptr, name(n)), 0);
    run_for(5);
    EXPECT_EQ(fired, (std::vector<std::string>{"x", "cancelled 2+1"}));
}

int rearms = 0;
void rearm_at_once(void *, void *) {
    ++rearms;
    vk_eloop_register_timeout(0, 0, rearm_at_once, nullptr, nullptr);
}
void read_and_stop(int sock, void *, void *) {
    char c;
    if (read(sock, &c, 1) != 1) fired.emplace_back("nothing to read");
    vk_eloop_terminate();
}

TEST_F(EloopOnHandClock, TimeoutRearmedWithNoDelayWaitsForTheNextRound) {
    // With the clock standing still the new timeout is due at once, yet the
    // readable socket must get its turn first.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    ASSERT_EQ(vk_eloop_register_read_sock(fds[0], read_and_stop, nullptr, nullptr), 0);
    rearms = 0;
    ASSERT_EQ(vk_eloop_register_timeout(0, 0, rearm_at_once, nullptr, nullptr), 0);
    vk_eloop_run();
    EXPECT_EQ(rearms, 1);
    EXPECT_TRUE(fired.empty());
    close(fds[0]);  // the next init forgets the registration
    close(fds[1]);
}

class EloopRun : public ::testing::Test {
protected:
    void SetUp() override {
        fired.clear();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
        // Ends the run should what is tested never end it.
        ASSERT_EQ(vk_eloop_register_timeout(5, 0, stop, nullptr, nullptr), 0);
    }
    static void pair(int *fds) { ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds), 0); }
};

std::string read_all(int sock) {
    std::array<char, 64> buf{};
    const ssize_t n = read(sock, buf.data(), buf.size());
    return n > 0 ? std::string(buf.data(), std::size_t(n)) : std::string();
}
void read_named(int sock, void *e, void *n) {
    fired.push_back(std::string(static_cast<const char *>(n)) + " " + read_all(sock) + (e ? " ctx" : ""));
    vk_eloop_terminate();
}

TEST_F(EloopRun, ReadableSocketCallsItsHandler) {
    int a[2], b[2], ctx = 0;
    pair(a);
    pair(b);
    ASSERT_EQ(vk_eloop_register_read_sock(a[0], read_named, nullptr, name("replaced")), 0);
    // Registering again replaces the handler and its contexts.
    ASSERT_EQ(vk_eloop_register_read_sock(a[0], read_named, &ctx, name("a")), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(b[0], read_named, nullptr, name("unregistered")), 0);
    vk_eloop_unregister_read_sock(b[0]);
    ASSERT_EQ(write(b[1], "b", 1), 1);
    ASSERT_EQ(write(a[1], "ping", 4), 4);
    vk_eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"a ping ctx"});
    for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
}

// Each reader closes the other's socket and registers a fresh one that takes
// the same descriptor number. The closed socket's readiness, reported in the
// same round, must not reach the fresh socket's handler.
std::array<int, 4> fds_in_play = {-1, -1, -1, -1};  // reader and writer of a, then of b
void replace_other(int sock, void *, void *which) {
    const std::size_t other = 2 * (1 - *static_cast<std::size_t *>(which));
    read_all(sock);
    vk_eloop_unregister_read_sock(fds_in_play[other]);
    close(fds_in_play[other]);
    close(fds_in_play[other + 1]);
    int fresh[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fresh), 0);
    ASSERT_EQ(fresh[0], fds_in_play[other]) << "the lowest free number is taken again";
    fds_in_play[other + 1] = fresh[1];
    vk_eloop_register_read_sock(fresh[0], read_named, nullptr, name("fresh"));
    fired.push_back("reader");
}

TEST_F(EloopRun, ReadinessOfAClosedSocketDoesNotReachItsSuccessor) {
    static std::size_t ids[2] = {0, 1};
    for (std::size_t i : {0u, 1u}) {
        pair(&fds_in_play[2 * i]);
        ASSERT_EQ(vk_eloop_register_read_sock(fds_in_play[2 * i], replace_other, nullptr, &ids[i]), 0);
        ASSERT_EQ(write(fds_in_play[2 * i + 1], "x", 1), 1);
    }
    ASSERT_EQ(vk_eloop_register_timeout(0, 50000, stop, nullptr, nullptr), 0);
    vk_eloop_run();
    for (int fd : fds_in_play) close(fd);
    EXPECT_EQ(fired, std::vector<std::string>{"reader"});
}

std::vector<int> signals_seen;
// Real work is allowed here: this runs in the loop, not in the signal's context.
void note_signal(int sig, void *) { signals_seen.push_back(sig); }
void send_signal(void *, void *sig) { kill(getpid(), *static_cast<int *>(sig)); }

// A taken signal reaches its handler from the loop, which goes on; SIGTERM and
// SIGINT end the run, each once. Ignored signals leave the daemon running end to end.
TEST_F(EloopRun, SignalsRunTheirHandlersInTheLoopAndTerminationEndsTheRun) {
    signals_seen.clear();
    ASSERT_EQ(vk_eloop_register_signal(SIGHUP, note_signal, nullptr), 0);
    // 32 is the C library's own: sigaction refuses it, and so must the loop.
    for (int sig : {SIGTERM, SIGINT, SIGKILL, 0, 65, 32}) EXPECT_EQ(vk_eloop_register_signal(sig, note_signal, nullptr), -1) << sig;
    // Far apart, so that a slow round cannot put two in one read of the pipe.
    static int sigs[] = {SIGHUP, SIGTERM, SIGINT};
    ASSERT_EQ(vk_eloop_register_timeout(0, 1000, send_signal, nullptr, &sigs[0]), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 50000, send_signal, nullptr, &sigs[1]), 0);
    vk_eloop_run();
    EXPECT_EQ(signals_seen, std::vector<int>{SIGHUP});
    EXPECT_EQ(vk_eloop_cancel_timeout(stop, VK_ELOOP_ANY, VK_ELOOP_ANY), 1) << "not ended by the safety stop";
    ASSERT_EQ(vk_eloop_register_timeout(5, 0, stop, nullptr, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 1000, send_signal, nullptr, &sigs[2]), 0);
    vk_eloop_run();  // SIGTERM was taken: this run lasts until SIGINT
    EXPECT_EQ(vk_eloop_cancel_timeout(send_signal, VK_ELOOP_ANY, VK_ELOOP_ANY), 0);
    EXPECT_EQ(vk_eloop_cancel_timeout(stop, VK_ELOOP_ANY, VK_ELOOP_ANY), 1) << "not ended by the safety stop";

    // A new init forgets them: the default action is back.
    ASSERT_EQ(vk_eloop_init(nullptr), 0);
    struct sigaction now {};
    ASSERT_EQ(sigaction(SIGHUP, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

}  // namespace
