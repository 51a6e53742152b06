// tovrinctl run as a process against the daemon's endpoint: absent, silent, or
// a fake that records what arrives and answers requests.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "tests/host_order.h"
#include "tests/tools/ctl_process.h"
#include "tests/tools/fake_daemon.h"
#include "tools/tovrinctl/encode.h"

namespace ctltest {
namespace {

using host_order::h32;
using tovrinctl::parse_hex;
using tovrinctl::to_hex;

class TovrinctlTranscript : public ::testing::Test {
protected:
    // Endpoint files tovrinctl left in the IPC directory (its own temporary ones).
    std::vector<std::string> leftovers() const {
        std::vector<std::string> names;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root.dir() + "/vk/ipc", ec))
            if (e.path().filename().string().starts_with("tovrinctl-")) names.push_back(e.path().filename().string());
        return names;
    }
    ipc_root root;
};

std::string joined(const std::vector<std::string> &argv) {
    std::string s;
    for (const std::string &a : argv) s += a + " ";
    return s;
}

TEST_F(TovrinctlTranscript, WithoutADaemonEveryCommandNamesThePathItCannotReach) {
    const std::string daemon = root.file("/vk/ipc/tovrin");
    const std::vector<std::vector<std::string>> commands = {
        {"status"},
        {"log", "get"},
        {"log", "set", "level", "4"},
        {"dump"},
        {"key", "00112233445566778899aabbccddeeff"},
        {"encrypt", "1"},
        {"controller", "10.0.0.1"},
        {"karate", "7", "3000"},
        {"notify", "124"},
        {"request", "28"},
        {"send", "200", "x"},
        {"send", "200", "--ack", "x"},
    };
    for (const auto &argv : commands) {
        const transcript_t t = run_ctl(argv);
        EXPECT_EQ(t.status, 1) << joined(argv);
        EXPECT_TRUE(t.err.starts_with("tovrinctl: cannot reach " + daemon + ": ")) << joined(argv) << t.err;
        EXPECT_EQ(t.out, "") << joined(argv);
    }
    const transcript_t other = run_ctl({"--path", "/vk/ipc/elsewhere", "status"});
    EXPECT_EQ(other.status, 1);
    EXPECT_TRUE(other.err.starts_with("tovrinctl: cannot reach " + root.file("/vk/ipc/elsewhere") + ": ")) << other.err;
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
    EXPECT_FALSE(std::filesystem::exists(root.file("/vk/ipc/gelvar")));
}

TEST_F(TovrinctlTranscript, SilentDaemonGivesNoAnswerAfterTheTimeout) {
    fake_daemon daemon;  // answers no request and no application message
    ASSERT_TRUE(daemon.is_open());
    daemon.set_outcome(outcome_t::none);
    const std::string expected = "tovrinctl: no answer from " + root.file("/vk/ipc/tovrin") + " within 300 ms\n";
    for (const auto &argv : std::vector<std::vector<std::string>>{{"--timeout", "300", "status"},
                                                                  {"dump", "--timeout", "300"},
                                                                  {"--timeout", "300", "send", "200", "--ack", "x"}}) {
        const auto start = std::chrono::steady_clock::now();
        const transcript_t t = run_ctl(argv);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(t.status, 1) << joined(argv);
        EXPECT_EQ(t.err, expected) << joined(argv);
        EXPECT_EQ(t.out, "");
        EXPECT_GE(took, std::chrono::milliseconds(300)) << joined(argv);
        EXPECT_LT(took, std::chrono::seconds(5)) << joined(argv);
    }
    // The requests went out, with the request flag, from a temporary endpoint now gone.
    const auto got = daemon.received(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].type, 120u);
    EXPECT_EQ(got[0].flags, 0x2u);
    EXPECT_TRUE(got[0].sender.starts_with("/vk/ipc/tovrinctl-")) << got[0].sender;
    EXPECT_EQ(got[1].type, 68u);
    EXPECT_EQ(got[2].type, 122u);
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

TEST_F(TovrinctlTranscript, StatusAndLogConfigurationArePrinted) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    daemon.answer(120, parse_hex("00000000" + h32(0)).value());
    daemon.answer(28, parse_hex(h32(1) + h32(0) + h32(3) + h32(0) + h32(0) + h32(1048576)).value());
    transcript_t t = run_ctl({"status"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "controller 0.0.0.0 link DOWN\n");
    EXPECT_EQ(t.err, "");

    daemon.answer(120, parse_hex("c0a80101" + h32(1)).value());
    t = run_ctl({"status"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "controller 192.168.1.1 link UP\n");

    t = run_ctl({"log", "get"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "level 3 echo 0 max 1048576\n");

    daemon.answer(120, parse_hex("c0a80101").value());  // too short to hold the status
    t = run_ctl({"status"});
    EXPECT_EQ(t.status, 1);
    EXPECT_EQ(t.err, "tovrinctl: short answer to request 120: 4 bytes\n");
    EXPECT_EQ(t.out, "");
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

TEST_F(TovrinctlTranscript, LogSetChangesOnlyTheGivenWords) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    // Words 1 and 4 are not the library's defaults: they must come back as they were.
    daemon.answer(28, parse_hex(h32(1) + h32(7) + h32(3) + h32(0) + h32(9) + h32(1048576)).value());
    struct log_case {
        std::vector<std::string> argv;
        std::string sent;
        std::string out;
    };
    const std::vector<log_case> cases = {
        {{"log", "set", "level", "4", "echo", "1"},
         h32(1) + h32(7) + h32(4) + h32(1) + h32(9) + h32(1048576),
         "level 4 echo 1 max 1048576\n"},
        {{"log", "set", "max", "2048"},
         h32(1) + h32(7) + h32(3) + h32(0) + h32(9) + h32(2048),
         "level 3 echo 0 max 2048\n"},
        {{"log", "set", "level", "-1", "max", "4294967295"},
         h32(1) + h32(7) + "ffffffff" + h32(0) + h32(9) + "ffffffff",
         "level -1 echo 0 max 4294967295\n"},
    };
    for (const log_case &c : cases) {
        const std::size_t before = daemon.received().size();
        const transcript_t t = run_ctl(c.argv);
        EXPECT_EQ(t.status, 0) << joined(c.argv) << t.err;
        EXPECT_EQ(t.out, c.out) << joined(c.argv);
        const auto got = daemon.received(before + 2);
        ASSERT_EQ(got.size(), before + 2) << joined(c.argv);
        EXPECT_EQ(got[before].type, 28u);
        EXPECT_EQ(got[before].flags, 0x2u);
        EXPECT_EQ(got[before + 1].type, 29u);
        EXPECT_EQ(got[before + 1].flags, 0x1u);
        EXPECT_EQ(to_hex(got[before + 1].payload), c.sent) << joined(c.argv);
    }
}

TEST_F(TovrinctlTranscript, NotificationsCarryTheirPayloadBytes) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    struct note_case {
        std::vector<std::string> argv;
        uint32_t type;
        std::string payload;
        std::string err_part;  // "" when stderr must stay empty
    };
    const std::vector<note_case> cases = {
        {{"key", "00112233445566778899AABBCCDDEEFF"}, 180, h32(16) + "00112233445566778899aabbccddeeff", ""},
        {{"key", "aabbcc"}, 180, h32(3) + "aabbcc", "tovrinctl: warning: the key is 3 bytes"},
        {{"encrypt", "1"}, 181, h32(1), ""},
        {{"encrypt", "-2"}, 181, h32(0xfffffffe), ""},
        {{"controller", "10.1.2.3"}, 149, "0a010203", ""},
        {{"karate", "7", "3000"}, 121, h32(7) + h32(3000), ""},
        {{"karate", "7", "0"}, 121, h32(7) + h32(0), ""},
        {{"notify", "124"}, 124, "", ""},
        {{"notify", "16", "0BADF00D"}, 16, "0badf00d", ""},
        {{"send", "200", "--id", "5", "--name", "probe", "hi"},
         122,
         h32(101) + "70726f6265" + std::string(118, '0') + h32(5) + h32(0) + h32(200) + h32(2) + "6869",
         ""},
    };
    for (const note_case &c : cases) {
        const std::size_t before = daemon.received().size();
        const transcript_t t = run_ctl(c.argv);
        EXPECT_EQ(t.status, 0) << joined(c.argv) << t.err;
        EXPECT_EQ(t.out, "") << joined(c.argv);
        if (c.err_part.empty()) {
            EXPECT_EQ(t.err, "") << joined(c.argv);
        } else {
            EXPECT_NE(t.err.find(c.err_part), std::string::npos) << joined(c.argv) << t.err;
        }
        const auto got = daemon.received(before + 1);
        ASSERT_EQ(got.size(), before + 1) << joined(c.argv);
        EXPECT_EQ(got.back().type, c.type) << joined(c.argv);
        EXPECT_EQ(got.back().flags, 0x1u) << joined(c.argv);
        EXPECT_EQ(to_hex(got.back().payload), c.payload) << joined(c.argv);
    }
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

TEST_F(TovrinctlTranscript, RawRequestAndDumpWaitForTheResponse) {
    fake_daemon daemon;
    ASSERT_TRUE(daemon.is_open());
    daemon.answer(68, {});
    daemon.answer(77, parse_hex("00ff10").value());
    transcript_t t = run_ctl({"request", "77", "0102"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "type=77 flags=0x00000004 len=3 payload=00ff10\n");
    t = run_ctl({"request", "68"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "type=68 flags=0x00000004 len=0 payload=\n");
    t = run_ctl({"dump"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "");
    EXPECT_EQ(t.err, "");
    const auto got = daemon.received(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].type, 77u);
    EXPECT_EQ(got[0].flags, 0x2u);
    EXPECT_EQ(to_hex(got[0].payload), "0102");
    EXPECT_EQ(got[2].type, 68u);
    EXPECT_EQ(got[2].payload.size(), 0u);
}

TEST_F(TovrinctlTranscript, PathOptionAddressesAnotherEndpoint) {
    fake_daemon other("/vk/ipc/second");
    ASSERT_TRUE(other.is_open());
    other.answer(120, parse_hex("0a000009" + h32(1)).value());
    const transcript_t t = run_ctl({"--path", "/vk/ipc/second", "status"});
    EXPECT_EQ(t.status, 0) << t.err;
    EXPECT_EQ(t.out, "controller 10.0.0.9 link UP\n");
    EXPECT_EQ(run_ctl({"status"}).status, 1);  // nothing at the default path
}

TEST_F(TovrinctlTranscript, HelpAndUsageErrors) {
    transcript_t t = run_ctl({"--help"});
    EXPECT_EQ(t.status, 0);
    EXPECT_TRUE(t.out.starts_with("Usage: tovrinctl")) << t.out;
    EXPECT_NE(t.out.find("listen ID [--count N] [--timeout SEC]"), std::string::npos);
    t = run_ctl({});
    EXPECT_EQ(t.status, 2);
    EXPECT_EQ(t.err, "tovrinctl: no command given\nTry 'tovrinctl --help'.\n");
    t = run_ctl({"listen", "103"});
    EXPECT_EQ(t.status, 2);
    EXPECT_TRUE(t.err.starts_with("tovrinctl: unknown endpoint id '103'")) << t.err;
    EXPECT_EQ(t.out, "");
}

}  // namespace
}  // namespace ctltest
