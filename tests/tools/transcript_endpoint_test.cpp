// tovrinctl on an application endpoint: waiting for the outcome of a message
// it sent, and listening.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/host_order.h"
#include "tests/tools/ctl_process.h"
#include "tests/tools/fake_daemon.h"
#include "tools/tovrinctl/encode.h"

namespace ctltest {
namespace {

using namespace std::chrono_literals;

class TovrinctlEndpoint : public ::testing::Test {
protected:
    ipc_root root;

    // A run refused because another process holds endpoint ep at path: status 1 and why.
    void expect_held_elsewhere(const transcript_t &t, const std::string &ep, const char *path) const {
        EXPECT_EQ(t.status, 1);
        EXPECT_TRUE(t.err.starts_with("tovrinctl: endpoint " + ep + " (" + root.file(path) +
                                      ") is already bound by another process"))
            << t.err;
    }
};

uint32_t header_word(const std::vector<uint8_t> &p, std::size_t at) {
    uint32_t v = 0;
    std::memcpy(&v, p.data() + at, 4);
    return v;
}

TEST_F(TovrinctlEndpoint, SendWithAckPrintsTheOutcomeAnsweredAtTheTablePath) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    struct outcome_case {
        outcome_t outcome;
        std::vector<std::string> argv;
        int status;
        std::string out;
        uint32_t flags_sent;
    };
    const std::vector<outcome_case> cases = {
        {outcome_t::delivered, {"send", "200", "--ack", "--id", "7", "hello"}, 0, "delivered\n", 0x100},
        {outcome_t::failed, {"send", "200", "--ack", "--id", "8", "hello"}, 1, "failed\n", 0x100},
        {outcome_t::delivered, {"send", "200", "--sync", "--from", "102", "--id", "9", "x"}, 0, "delivered\n", 0x300},
        {outcome_t::failed, {"send", "200", "--sync", "--from", "109", "x"}, 1, "failed\n", 0x300},
        // An answer of the wrong kind is not the awaited one.
        {outcome_t::wrong_kind, {"--timeout", "400", "send", "200", "--ack", "x"}, 1, "", 0x100},
        {outcome_t::wrong_kind, {"--timeout", "400", "send", "200", "--sync", "x"}, 1, "", 0x300},
    };
    for (const outcome_case &c : cases) {
        daemon.set_outcome(c.outcome);
        const std::size_t before = daemon.received().size();
        const transcript_t t = run_ctl(c.argv);
        std::string shown;
        for (const std::string &a : c.argv) shown += a + " ";
        EXPECT_EQ(t.status, c.status) << shown << t.err;
        EXPECT_EQ(t.out, c.out) << shown << t.err;
        if (c.outcome == outcome_t::wrong_kind) {
            EXPECT_NE(t.err.find("no answer from " + root.file("/vk/ipc/tovrin") + " within 400 ms"), std::string::npos)
                << shown << t.err;
        }
        const auto got = daemon.received(before + 1);
        ASSERT_EQ(got.size(), before + 1) << shown;
        EXPECT_EQ(got.back().type, 122u);
        EXPECT_EQ(got.back().flags, 0x1u);
        ASSERT_GE(got.back().payload.size(), 84u);
        EXPECT_EQ(header_word(got.back().payload, 72), c.flags_sent) << shown;
    }
    for (const char *path : {"/vk/ipc/gelvar", "/vk/ipc/hostun", "/vk/ipc/tumbel"})
        EXPECT_FALSE(std::filesystem::exists(root.file(path))) << path;
}

TEST_F(TovrinctlEndpoint, SendWithAckRefusesAnEndpointAnotherProcessHolds) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    test_endpoint busy("/vk/ipc/gelvar");
    ASSERT_TRUE(busy.is_open());
    const transcript_t t = run_ctl({"send", "200", "--ack", "x"});
    expect_held_elsewhere(t, "101", "/vk/ipc/gelvar");
    EXPECT_EQ(t.out, "");
    EXPECT_TRUE(std::filesystem::exists(root.file("/vk/ipc/gelvar")));  // not removed
    // Refused before anything was sent: the next message is the first to arrive.
    EXPECT_EQ(run_ctl({"send", "200", "y"}).status, 0);
    const auto got = daemon.received(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].payload.back(), 'y');
}

TEST_F(TovrinctlEndpoint, SendRefusesDataThatDoesNotFitOneMessage) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    const std::string most = root.dir() + "/most.bin", over = root.dir() + "/over.bin";
    std::ofstream(most, std::ios::binary) << std::string(16303, 'a') << 'z';
    std::ofstream(over, std::ios::binary) << std::string(16305, 'a');

    transcript_t t = run_ctl({"send", "200", "@" + over});
    EXPECT_EQ(t.status, 1);
    EXPECT_EQ(t.err, "tovrinctl: " + over + " holds more than 16304 bytes; at most 16304 fit one message\n");
    t = run_ctl({"send", "200", std::string(16305, 'b')});
    EXPECT_EQ(t.status, 1);
    EXPECT_EQ(t.err, "tovrinctl: the data is 16305 bytes; at most 16304 fit one message\n");
    t = run_ctl({"send", "200", "@" + root.dir() + "/missing.bin"});
    EXPECT_EQ(t.status, 1);
    EXPECT_TRUE(t.err.starts_with("tovrinctl: cannot read " + root.dir() + "/missing.bin")) << t.err;

    // The refused ones sent nothing: this is the first message to arrive.
    t = run_ctl({"send", "200", "@" + most});
    EXPECT_EQ(t.status, 0) << t.err;
    const auto got = daemon.received(1);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].payload.size(), 84u + 16304u);
    EXPECT_EQ(header_word(got[0].payload, 80), 16304u);
    EXPECT_EQ(got[0].payload.back(), 'z');
}

// Sends to a listening tovrinctl, retrying while it is still binding its endpoint.
bool send_when_bound(test_endpoint &from, const std::string &to, const std::vector<uint8_t> &payload) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (from.send(to, 123, 0x1, payload) != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// A 32-bit word of an IPC payload, in host order.
std::string host_word(uint32_t v) {
    const auto b = host_order::b32(v);
    return std::string(b.begin(), b.end());
}

std::vector<uint8_t> app(int32_t src, uint32_t id, uint32_t flags, int32_t dst, const std::string &data) {
    return tovrinctl::encode_app_msg({src, "", id, flags, dst},
                                     {reinterpret_cast<const uint8_t *>(data.data()), data.size()})
        .value();
}

TEST_F(TovrinctlEndpoint, ListenPrintsEachMessageAsItArrives) {
    test_endpoint daemon("/vk/ipc/tovrin");
    ASSERT_TRUE(daemon.is_open());
    ctl_child listen({"listen", "105", "--count", "3"});
    const auto status = app(0, 12, 0x2000000, 0, std::string("\x0a\x00\x00\x02", 4) + host_word(1));
    ASSERT_TRUE(send_when_bound(daemon, "/vk/ipc/prindal", status));
    // Each line must be out before the next message: a pipe reader sees it at once.
    EXPECT_EQ(listen.read_line(5s), "STATUS UP controller 10.0.0.2 id 12");
    ASSERT_EQ(daemon.send("/vk/ipc/prindal", 123, 0x1, app(7, 100000, 0x10000, 105, "hi there")), 0);
    EXPECT_EQ(listen.read_line(5s), "MSG id=100000 src=7 dst=105 len=8 data=hi there");
    ASSERT_EQ(daemon.send("/vk/ipc/prindal", 123, 0x4, app(105, 3, 0x1000300, 200, "")), 0);
    const transcript_t t = listen.finish();
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "ANSWER id=3 dst=200 len=0 flags=0x01000300 FAILED\n");
    EXPECT_EQ(t.err, "");
    EXPECT_FALSE(std::filesystem::exists(root.file("/vk/ipc/prindal")));
}

TEST_F(TovrinctlEndpoint, ListenGivesUpWhenNothingArrivesInTime) {
    const auto start = std::chrono::steady_clock::now();
    const transcript_t t = run_ctl({"listen", "106", "--timeout", "1"});
    EXPECT_EQ(t.status, 1);
    EXPECT_EQ(t.err, "tovrinctl: nothing received on " + root.file("/vk/ipc/quelon") + " within 1 s\n");
    EXPECT_EQ(t.out, "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);

    // A message restarts the wait; the timeout counts from the last one.
    test_endpoint daemon("/vk/ipc/tovrin");
    ASSERT_TRUE(daemon.is_open());
    ctl_child listen({"listen", "106", "--timeout", "1"});
    ASSERT_TRUE(send_when_bound(daemon, "/vk/ipc/quelon", app(7, 1, 0x10000, 106, "a")));
    EXPECT_EQ(listen.read_line(5s), "MSG id=1 src=7 dst=106 len=1 data=a");
    std::this_thread::sleep_for(700ms);
    ASSERT_EQ(daemon.send("/vk/ipc/quelon", 123, 0x1, app(7, 2, 0x10000, 106, "b")), 0);
    EXPECT_EQ(listen.read_line(5s), "MSG id=2 src=7 dst=106 len=1 data=b");
    EXPECT_EQ(listen.finish().status, 1);
}

TEST_F(TovrinctlEndpoint, ListenStopsCleanlyOnSigintAndSigterm) {
    test_endpoint daemon("/vk/ipc/tovrin");
    ASSERT_TRUE(daemon.is_open());
    for (int sig : {SIGINT, SIGTERM}) {
        ctl_child listen({"listen", "107"});
        ASSERT_TRUE(send_when_bound(daemon, "/vk/ipc/rastim", app(7, 1, 0x10000, 107, "up")));
        ASSERT_EQ(listen.read_line(5s), "MSG id=1 src=7 dst=107 len=2 data=up");
        ::kill(listen.pid(), sig);
        const transcript_t t = listen.finish(5s);
        EXPECT_EQ(t.status, 0) << "signal " << sig << ": " << t.err;
        EXPECT_FALSE(std::filesystem::exists(root.file("/vk/ipc/rastim"))) << "signal " << sig;
    }
}

TEST_F(TovrinctlEndpoint, ListenRefusesAnEndpointAnotherProcessHolds) {
    test_endpoint busy("/vk/ipc/sorvek");
    ASSERT_TRUE(busy.is_open());
    expect_held_elsewhere(run_ctl({"listen", "108", "--timeout", "1"}), "108", "/vk/ipc/sorvek");
}

}  // namespace
}  // namespace ctltest
