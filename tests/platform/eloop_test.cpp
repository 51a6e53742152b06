// Timeout order and cancellation, on a clock the test moves by hand so that
// several timeouts can share exactly one expiry.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "platform/linux/eloop_clock.h"

namespace {

constexpr uint64_t NS_PER_S = 1000000000;

uint64_t fake_now_ns = 0;
uint64_t fake_clock() { return fake_now_ns; }

std::vector<std::string> fired;

// Records the name given as user context.
void record(void *, void *name) { fired.emplace_back(static_cast<const char *>(name)); }
// Records its two contexts, each a single letter.
void record_pair(void *e, void *u) { fired.push_back({*static_cast<char *>(e), *static_cast<char *>(u)}); }
void record_other(void *e, void *u) { fired.push_back({'o', *static_cast<char *>(e), *static_cast<char *>(u)}); }
void stop(void *, void *) { vk_eloop_terminate(); }

// Cancels every pending record and every other instance of itself.
void cancel_records_and_self(void *, void *) {
    const int records = vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY);
    const int selves = vk_eloop_cancel_timeout(cancel_records_and_self, VK_ELOOP_ANY, VK_ELOOP_ANY);
    fired.push_back("cancelled " + std::to_string(records) + "+" + std::to_string(selves));
}

class EloopOnHandClock : public ::testing::Test {
protected:
    void SetUp() override {
        vk_eloop_set_clock(fake_clock);
        restart();
    }
    void TearDown() override { vk_eloop_set_clock(nullptr); }

    static void restart() {
        fake_now_ns = 1000 * NS_PER_S;
        fired.clear();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
    }
    // Moves the clock secs ahead and runs everything due by then; a stop
    // registered last at that time ends the run after the others.
    static void run_for(unsigned secs) {
        ASSERT_EQ(vk_eloop_register_timeout(secs, 0, stop, nullptr, nullptr), 0);
        fake_now_ns += secs * NS_PER_S;
        vk_eloop_run();
    }
    static void at(unsigned secs, unsigned usecs, vk_eloop_timeout_handler h, void *e, void *u) {
        ASSERT_EQ(vk_eloop_register_timeout(secs, usecs, h, e, u), 0);
    }
};

TEST_F(EloopOnHandClock, EqualExpiriesRunInRegistrationOrder) {
    at(1, 0, record, nullptr, const_cast<char *>("a1"));
    at(0, 500000, record, nullptr, const_cast<char *>("b1"));
    at(1, 0, record, nullptr, const_cast<char *>("a2"));
    at(0, 500000, record, nullptr, const_cast<char *>("b2"));
    at(1, 0, record, nullptr, const_cast<char *>("a3"));
    run_for(2);
    EXPECT_EQ(fired, (std::vector<std::string>{"b1", "b2", "a1", "a2", "a3"}));
}

TEST_F(EloopOnHandClock, OrderHoldsWhenTheTableGrows) {
    // Far more than the loop keeps room for up front, on three expiries.
    constexpr int count = 1000;
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(std::to_string(i));
    std::vector<std::string> expected;
    for (unsigned delay = 0; delay < 3; ++delay)
        for (int i = 0; i < count; ++i)
            if (unsigned(i % 3) == 2 - delay) expected.push_back(names[std::size_t(i)]);
    for (int i = 0; i < count; ++i) at(2 - unsigned(i % 3), 0, record, nullptr, names[std::size_t(i)].data());
    run_for(3);
    EXPECT_EQ(fired, expected);
}

TEST_F(EloopOnHandClock, TimeoutsAreOneShot) {
    at(1, 0, record, nullptr, const_cast<char *>("once"));
    run_for(2);
    run_for(5);
    EXPECT_EQ(fired, std::vector<std::string>{"once"});
    EXPECT_EQ(vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY), 0);
}

TEST_F(EloopOnHandClock, CancelRemovesEveryMatchAndCountsThem) {
    static char A = 'A', B = 'B', C = 'C', D = 'D';
    void *const any = VK_ELOOP_ANY;
    struct Case {
        const char *what;
        vk_eloop_timeout_handler handler;
        void *eloop_ctx, *user_ctx;
        int removed;
        std::vector<std::string> fired;
    };
    const std::vector<Case> cases = {
        {"both contexts", record_pair, &A, &B, 2, {"AC", "DB", "oAB"}},
        {"any first context", record_pair, any, &B, 3, {"AC", "oAB"}},
        {"any second context", record_pair, &A, any, 3, {"DB", "oAB"}},
        {"any contexts", record_pair, any, any, 4, {"oAB"}},
        {"no such contexts", record_pair, &D, &C, 0, {"AB", "AB", "AC", "DB", "oAB"}},
        {"null is not a wildcard", record_pair, nullptr, nullptr, 0, {"AB", "AB", "AC", "DB", "oAB"}},
        {"null second context", record_pair, &A, nullptr, 0, {"AB", "AB", "AC", "DB", "oAB"}},
        {"null first context", record_pair, nullptr, &B, 0, {"AB", "AB", "AC", "DB", "oAB"}},
        {"another handler", record_other, &A, &B, 1, {"AB", "AB", "AC", "DB"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        restart();
        at(1, 0, record_pair, &A, &B);
        at(1, 0, record_pair, &A, &B);
        at(1, 0, record_pair, &A, &C);
        at(1, 0, record_pair, &D, &B);
        at(1, 0, record_other, &A, &B);
        EXPECT_EQ(vk_eloop_cancel_timeout(c.handler, c.eloop_ctx, c.user_ctx), c.removed);
        EXPECT_EQ(vk_eloop_cancel_timeout(c.handler, c.eloop_ctx, c.user_ctx), 0) << "removed once only";
        run_for(2);
        EXPECT_EQ(fired, c.fired);
    }
}

TEST_F(EloopOnHandClock, HandlerCancelsOthersAndItselfInTheSamePass) {
    // All of these are due when the loop looks; the canceller at 2 s must still
    // stop those at 3 s and its own second instance at 4 s.
    at(1, 0, record, nullptr, const_cast<char *>("x"));
    at(2, 0, cancel_records_and_self, nullptr, nullptr);
    at(3, 0, record, nullptr, const_cast<char *>("y"));
    at(3, 0, record, nullptr, const_cast<char *>("z"));
    at(4, 0, cancel_records_and_self, nullptr, nullptr);
    run_for(5);
    // The firing instance is no longer pending, so it counts only the other.
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
    at(0, 0, rearm_at_once, nullptr, nullptr);
    vk_eloop_run();
    EXPECT_EQ(rearms, 1);
    vk_eloop_unregister_read_sock(fds[0]);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(EloopOnHandClock, RegistrationsWithoutHandlerAreRefused) {
    errno = 0;
    EXPECT_EQ(vk_eloop_register_timeout(0, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    const auto on_read = [](int, void *, void *) {};
    struct Case {
        const char *what;
        int sock;
        vk_eloop_sock_handler handler;
    };
    for (const Case &c : {Case{"negative socket", -1, +on_read}, Case{"no handler", 0, nullptr}}) {
        SCOPED_TRACE(c.what);
        errno = 0;
        EXPECT_EQ(vk_eloop_register_read_sock(c.sock, c.handler, nullptr, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

}  // namespace
