// The simulated event loop: timeouts in virtual time, ordering, cancelling.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/eloop.h"
#include "sim.h"

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSec = 1000 * kMs;

// What fired, and when: a handler context points at one of these.
struct Trace {
    std::vector<std::pair<uint64_t, std::string>> fired;
    std::vector<uint64_t> times() const {
        std::vector<uint64_t> t;
        for (const auto &f : fired) t.push_back(f.first);
        return t;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> n;
        for (const auto &f : fired) n.push_back(f.second);
        return n;
    }
};

void *tag(const char *name) { return const_cast<char *>(name); }

void record(void *trace, void *name) {
    static_cast<Trace *>(trace)->fired.emplace_back(sim::now_us(), static_cast<const char *>(name));
}

void other(void *trace, void *name) { record(trace, name); }

class SimEloop : public ::testing::Test {
protected:
    void SetUp() override {
        sim::reset();
        ASSERT_EQ(vk_eloop_init(nullptr), 0);
    }
    Trace trace;
};

TEST_F(SimEloop, TimeoutsFireAtTheirVirtualTimesInTimeOrder) {
    vk_eloop_register_timeout(5, 0, record, &trace, tag("five"));
    vk_eloop_register_timeout(1, 500000, record, &trace, tag("one and a half"));
    vk_eloop_register_timeout(0, 2 * kSec, record, &trace, tag("two in usecs"));
    vk_eloop_register_timeout(2, 1, record, &trace, tag("just after two"));

    sim::run_for(kSec);
    EXPECT_TRUE(trace.fired.empty());
    EXPECT_EQ(sim::now_us(), kSec);

    // A timeout due exactly at the end of the run fires; one a microsecond later does not.
    sim::run_for(kSec);
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"one and a half", "two in usecs"}));
    EXPECT_EQ(trace.times(), (std::vector<uint64_t>{1500 * kMs, 2 * kSec}));
    EXPECT_EQ(sim::now_us(), 2 * kSec);
    EXPECT_EQ(sim::pending_timeouts(), 2u);

    sim::run_for(10 * kSec);
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"one and a half", "two in usecs", "just after two", "five"}));
    EXPECT_EQ(trace.times(), (std::vector<uint64_t>{1500 * kMs, 2 * kSec, 2 * kSec + 1, 5 * kSec}));
    EXPECT_EQ(sim::now_us(), 12 * kSec);
    EXPECT_EQ(sim::pending_timeouts(), 0u);
}

void register_zero_delay(void *trace, void *) {
    record(trace, tag("registrar"));
    vk_eloop_register_timeout(0, 0, record, trace, tag("zero delay"));
}

TEST_F(SimEloop, EqualExpiriesRunInRegistrationOrder) {
    vk_eloop_register_timeout(2, 0, record, &trace, tag("a"));
    vk_eloop_register_timeout(2, 0, register_zero_delay, &trace, nullptr);
    vk_eloop_register_timeout(1, 0, record, &trace, tag("early"));
    vk_eloop_register_timeout(2, 0, record, &trace, tag("b"));
    sim::run_for(1 * kSec);
    // Registered a second later for the same instant: still after a and b.
    vk_eloop_register_timeout(1, 0, record, &trace, tag("late"));
    vk_eloop_register_timeout(0, 999999, record, &trace, tag("before"));
    sim::run_for(5 * kSec);
    EXPECT_EQ(trace.names(),
              (std::vector<std::string>{"early", "before", "a", "registrar", "b", "late", "zero delay"}));
    EXPECT_EQ(trace.times(),
              (std::vector<uint64_t>{kSec, 2 * kSec - 1, 2 * kSec, 2 * kSec, 2 * kSec, 2 * kSec, 2 * kSec}));
}

TEST_F(SimEloop, CancelRemovesEveryMatchOfHandlerAndContexts) {
    // Two first contexts (x, y), second contexts naming each timeout.
    Trace x, y;
    struct Case {
        const char *what;
        vk_eloop_timeout_handler h;
        void *ctx1, *ctx2;
        int removed;
        std::vector<std::string> left;
    };
    const std::vector<Case> cases = {
        {"exact", record, &x, tag("1"), 1, {"2", "3", "4", "5"}},
        {"any second context", record, &x, VK_ELOOP_ANY, 2, {"3", "4", "5"}},
        {"any first context", record, VK_ELOOP_ANY, tag("3"), 1, {"1", "2", "4", "5"}},
        {"any context at all", record, VK_ELOOP_ANY, VK_ELOOP_ANY, 4, {"5"}},
        {"other handler", other, VK_ELOOP_ANY, VK_ELOOP_ANY, 1, {"1", "2", "3", "4"}},
        {"wrong first context", record, &y, tag("1"), 0, {"1", "2", "3", "4", "5"}},
        {"null is no wildcard", record, nullptr, nullptr, 0, {"1", "2", "3", "4", "5"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        sim::reset();
        x.fired.clear();
        y.fired.clear();
        vk_eloop_register_timeout(1, 0, record, &x, tag("1"));
        vk_eloop_register_timeout(1, 0, record, &x, tag("2"));
        vk_eloop_register_timeout(1, 0, record, &y, tag("3"));
        vk_eloop_register_timeout(1, 0, record, &y, tag("4"));
        vk_eloop_register_timeout(1, 0, other, &x, tag("5"));
        EXPECT_EQ(vk_eloop_cancel_timeout(c.h, c.ctx1, c.ctx2), c.removed);
        EXPECT_EQ(sim::pending_timeouts(), 5u - c.removed);
        sim::run_for(kSec);
        std::vector<std::string> left = x.names();
        for (const auto &n : y.names()) left.push_back(n);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(left, c.left);
    }
}

// Retransmission-like back-off: each firing re-arms itself with twice the delay.
struct Backoff {
    Trace trace;
    unsigned delay = 1;
    unsigned stop_after = 16;
};

void backoff_fire(void *b, void *) {
    auto *bo = static_cast<Backoff *>(b);
    record(&bo->trace, tag("retry"));
    if (bo->delay >= bo->stop_after) return;
    bo->delay *= 2;
    vk_eloop_register_timeout(bo->delay, 0, backoff_fire, b, nullptr);
}

TEST_F(SimEloop, SelfReArmingHandlerRunsOnScheduleAcrossRuns) {
    Backoff bo;
    vk_eloop_register_timeout(bo.delay, 0, backoff_fire, &bo, nullptr);
    EXPECT_EQ(sim::next_timeout_of(backoff_fire), std::optional<uint64_t>(1 * kSec));
    // Uneven slices: the schedule must not depend on where runs end.
    for (uint64_t slice : {700 * kMs, 2300 * kMs, 3999 * kMs, 1 * kMs, 10 * kSec}) sim::run_for(slice);
    EXPECT_EQ(sim::next_timeout_of(backoff_fire), std::optional<uint64_t>(31 * kSec));
    EXPECT_EQ(bo.trace.times(), (std::vector<uint64_t>{1 * kSec, 3 * kSec, 7 * kSec, 15 * kSec}));
    sim::run_for(16 * kSec);
    EXPECT_EQ(bo.trace.times(), (std::vector<uint64_t>{1 * kSec, 3 * kSec, 7 * kSec, 15 * kSec, 31 * kSec}));
    EXPECT_EQ(sim::next_timeout_of(backoff_fire), std::nullopt);
    EXPECT_EQ(sim::pending_timeouts(backoff_fire), 0u);
}

// Cancels every timeout of record, then re-arms and cancels itself.
void canceller(void *result, void *) {
    auto *removed = static_cast<std::vector<int> *>(result);
    removed->push_back(vk_eloop_cancel_timeout(record, VK_ELOOP_ANY, VK_ELOOP_ANY));
    vk_eloop_register_timeout(1, 0, canceller, result, nullptr);
    removed->push_back(vk_eloop_cancel_timeout(canceller, result, VK_ELOOP_ANY));
}

TEST_F(SimEloop, HandlersMayCancelOthersAndThemselves) {
    std::vector<int> removed;
    vk_eloop_register_timeout(1, 0, record, &trace, tag("before"));
    vk_eloop_register_timeout(2, 0, canceller, &removed, nullptr);
    vk_eloop_register_timeout(2, 0, record, &trace, tag("same instant, later"));
    vk_eloop_register_timeout(3, 0, record, &trace, tag("later"));
    EXPECT_EQ(sim::pending_timeouts(record), 3u);
    sim::run_for(10 * kSec);
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"before"}));
    // The running timeout is already gone: only its own re-arm is cancelled.
    EXPECT_EQ(removed, (std::vector<int>{2, 1}));
    EXPECT_EQ(sim::pending_timeouts(), 0u);
}

void terminate_after(void *trace, void *name) {
    record(trace, name);
    vk_eloop_terminate();
}

TEST_F(SimEloop, RunStopsWhenTerminatedOrWhenNothingCanHappen) {
    vk_eloop_register_timeout(1, 0, record, &trace, tag("one"));
    vk_eloop_register_timeout(4, 0, terminate_after, &trace, tag("stop"));
    vk_eloop_register_timeout(9, 0, record, &trace, tag("nine"));
    vk_eloop_run();
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"one", "stop"}));
    EXPECT_EQ(sim::now_us(), 4 * kSec);
    EXPECT_EQ(sim::pending_timeouts(), 1u);

    // Termination is consumed: the next run goes on until nothing is left.
    vk_eloop_run();
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"one", "stop", "nine"}));
    EXPECT_EQ(sim::now_us(), 9 * kSec);

    // Terminated before it starts: returns at once.
    vk_eloop_register_timeout(1, 0, record, &trace, tag("ten"));
    vk_eloop_terminate();
    vk_eloop_run();
    EXPECT_EQ(trace.fired.size(), 3u);
    EXPECT_EQ(sim::now_us(), 9 * kSec);
}

TEST_F(SimEloop, SettleRunsOnlyWhatIsDueNow) {
    vk_eloop_register_timeout(0, 0, record, &trace, tag("now"));
    vk_eloop_register_timeout(0, 1, record, &trace, tag("soon"));
    sim::settle();
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"now"}));
    EXPECT_EQ(sim::now_us(), 0u);
    EXPECT_EQ(sim::next_timeout_of(record), std::optional<uint64_t>(1));
    EXPECT_EQ(sim::next_timeout_of(other), std::nullopt);
}

void on_signal(int sig, void *trace) {
    static_cast<Trace *>(trace)->fired.emplace_back(sim::now_us(), sig == SIGHUP ? "hup" : "usr1");
}

// Raised signals reach their handlers at the next round of the world, once
// each however often raised; a termination signal ends vk_eloop_run.
TEST_F(SimEloop, SignalsAreDeliveredByTheLoop) {
    ASSERT_EQ(vk_eloop_register_signal(SIGHUP, on_signal, &trace), 0);
    ASSERT_EQ(vk_eloop_register_signal(SIGUSR1, on_signal, &trace), 0);
    ASSERT_EQ(vk_eloop_register_signal(SIGPIPE, nullptr, nullptr), 0);
    EXPECT_EQ(vk_eloop_register_signal(SIGTERM, on_signal, &trace), -1);
    sim::raise_signal(SIGUSR1);
    sim::raise_signal(SIGUSR1);
    sim::raise_signal(SIGPIPE);
    sim::raise_signal(SIGUSR2);
    EXPECT_TRUE(trace.fired.empty()) << "never inside the raise";
    sim::run_for(kSec);
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"usr1"}));
    EXPECT_EQ(trace.times(), (std::vector<uint64_t>{0}));

    vk_eloop_register_timeout(5, 0, record, &trace, tag("later"));
    sim::raise_signal(SIGHUP);
    sim::raise_signal(SIGTERM);
    vk_eloop_run();
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"usr1"})) << "the termination comes first";
    EXPECT_EQ(sim::pending_timeouts(), 1u);

    sim::raise_signal(SIGHUP);
    sim::settle();
    EXPECT_EQ(trace.names(), (std::vector<std::string>{"usr1", "hup"}));
    ASSERT_EQ(vk_eloop_init(nullptr), 0);
    sim::raise_signal(SIGHUP);
    sim::settle();
    EXPECT_EQ(trace.fired.size(), 2u) << "init forgets the handlers";
}

}  // namespace
