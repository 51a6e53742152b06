// Simulated clock, uptime, syslog and node information, and the world's reset.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "platform/ipc.h"
#include "platform/node.h"
#include "platform/os.h"
#include "platform/sysmon.h"
#include "sim.h"

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSec = 1000 * kMs;

class SimOs : public ::testing::Test {
protected:
    void SetUp() override { sim::reset(); }
};

long uptime() {
    struct sysinfo si {};
    EXPECT_EQ(vk_os_sysinfo(&si), 0);
    return si.uptime;
}

TEST_F(SimOs, WallClockAndUptimeFollowTheVirtualClock) {
    time_t t = 0;
    EXPECT_EQ(vk_os_time(&t), 1700000000);
    EXPECT_EQ(t, 1700000000);
    EXPECT_EQ(uptime(), 4242);

    sim::set_epoch(1000);
    sim::run_for(2 * kSec + 345 * kMs + 999);
    EXPECT_EQ(vk_os_time(nullptr), 1002);
    vk_timeb tb{};
    vk_os_ftime(&tb);
    EXPECT_EQ(tb.time, 1002);
    EXPECT_EQ(tb.millitm, 345);
    EXPECT_EQ(uptime(), 4244);

    // Set now, it holds now and grows from here.
    sim::set_uptime(10);
    EXPECT_EQ(uptime(), 10);
    sim::run_for(kSec - 1);
    EXPECT_EQ(uptime(), 10);
    sim::run_for(1);
    EXPECT_EQ(uptime(), 11);

    sim::set_uptime(10, true);
    struct sysinfo si {};
    EXPECT_EQ(vk_os_sysinfo(&si), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(SimOs, SyslogIsCapturedFormattedWithPriorityAndTime) {
    vk_os_syslog(LOG_INFO, "plain");
    sim::run_for(3 * kSec);
    vk_os_syslog(LOG_ERR | LOG_DAEMON, "ap %s lost after %d s (%#x)", "0013a9c0ffee", 31, 0x2a);
    const auto &lines = sim::syslog_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].at_us, 0u);
    EXPECT_EQ(lines[0].priority, LOG_INFO);
    EXPECT_EQ(lines[0].text, "plain");
    EXPECT_EQ(lines[1].at_us, 3 * kSec);
    EXPECT_EQ(lines[1].priority, LOG_ERR | LOG_DAEMON);
    EXPECT_EQ(lines[1].text, "ap 0013a9c0ffee lost after 31 s (0x2a)");
}

TEST_F(SimOs, RandomNumbersRepeatForTheSameSeed) {
    vk_os_srand(77);
    std::array<int, 4> first{};
    for (int &r : first) r = vk_os_rand();
    vk_os_srand(77);
    for (int r : first) EXPECT_EQ(vk_os_rand(), r);
}

TEST_F(SimOs, NodeInformationAsSetOrFailing) {
    std::array<char, 16> mac{};
    mac.fill('#');
    ASSERT_EQ(vk_get_node_vap_mac(0, mac.data(), mac.size()), 0);
    EXPECT_STREQ(mac.data(), "0013a9c0ffee");
    EXPECT_NE(vk_get_node_vap_mac(0, mac.data(), 12), 0);  // no room for the NUL
    sim::node_set_mac("a0b1c2d3e4f5");
    ASSERT_EQ(vk_get_node_vap_mac(1, mac.data(), 13), 0);
    EXPECT_STREQ(mac.data(), "a0b1c2d3e4f5");
    // Text as set, cut to the buffer.
    sim::node_set_mac("a0:b1:c2:d3:e4:f5");
    ASSERT_EQ(vk_get_node_vap_mac(0, mac.data(), mac.size()), 0);
    EXPECT_STREQ(mac.data(), "a0:b1:c2:d3:e4:");
    sim::node_set_mac(std::nullopt);
    EXPECT_NE(vk_get_node_vap_mac(0, mac.data(), mac.size()), 0);

    std::array<char, 20> serial{};
    serial.fill('#');
    ASSERT_EQ(vk_get_node_serial_num(serial.data(), serial.size()), 0);
    EXPECT_EQ(std::string(serial.data(), 12), "SN-TEST-0001");
    for (std::size_t i = 12; i < serial.size(); ++i) EXPECT_EQ(serial[i], '\0') << i;

    // Cut to the buffer, without a NUL when it fills it.
    sim::node_set_serial("0123456789abcdefXYZ");
    std::array<char, 16> exact{};
    ASSERT_EQ(vk_get_node_serial_num(exact.data(), exact.size()), 0);
    EXPECT_EQ(std::string(exact.data(), exact.size()), "0123456789abcdef");
    std::array<char, 4> small{};
    ASSERT_EQ(vk_get_node_serial_num(small.data(), small.size()), 0);
    EXPECT_EQ(std::string(small.data(), 4), "0123");
}

void noop(void *, void *) {}
void noop_read(int, void *, void *) {}

TEST_F(SimOs, ResetBringsTheWholeWorldBack) {
    // Make a mess of everything...
    const int udp = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(6650);
    ASSERT_EQ(vk_os_bind(udp, reinterpret_cast<const sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(vk_os_sendto(udp, "x", 1, 0, reinterpret_cast<const sockaddr *>(&a), sizeof a), 1);
    ASSERT_EQ(vk_eloop_register_read_sock(udp, noop_read, nullptr, nullptr), 0);
    sim::udp_inject(inet_addr("10.0.0.1"), {1, 2, 3});
    vk_ipc_handle_t h{};
    std::strcpy(h.path, "/vk/ipc/tovrin");
    ASSERT_EQ(vk_ipc_open(&h), 0);
    sim::ipc_inject(1, 0, {});
    ASSERT_EQ(sysmon_send_hb(&h, 1), 0);
    vk_eloop_register_timeout(5, 0, noop, nullptr, nullptr);
    vk_os_syslog(LOG_INFO, "line");
    sim::run_for(2 * kSec);
    sim::udp_fail_socket(EMFILE);
    sim::udp_fail_bind(EACCES);
    sim::udp_fail_send(EPERM);
    sim::ipc_fail_open(EACCES);
    sim::ipc_set_missing("/vk/ipc/cli", true);
    sim::node_set_mac(std::nullopt);
    sim::node_set_serial("other");
    sim::set_uptime(1, true);
    sim::set_epoch(5);

    sim::reset();

    // ...and find none of it.
    EXPECT_EQ(sim::now_us(), 0u);
    EXPECT_EQ(sim::pending_timeouts(), 0u);
    EXPECT_FALSE(sim::udp_open());
    EXPECT_EQ(sim::udp_bound_port(), 0);
    EXPECT_EQ(sim::udp_pending(), 0u);
    EXPECT_TRUE(sim::udp_sent().empty());
    EXPECT_TRUE(sim::ipc_sent().empty());
    EXPECT_TRUE(sim::syslog_lines().empty());
    EXPECT_FALSE(sim::ipc_is_open("/vk/ipc/tovrin"));
    EXPECT_EQ(vk_os_time(nullptr), 1700000000);
    EXPECT_EQ(uptime(), 4242);
    std::array<char, 13> mac{};
    EXPECT_EQ(vk_get_node_vap_mac(0, mac.data(), mac.size()), 0);
    EXPECT_STREQ(mac.data(), "0013a9c0ffee");
    std::array<char, 16> serial{};
    EXPECT_EQ(vk_get_node_serial_num(serial.data(), serial.size()), 0);
    EXPECT_STREQ(serial.data(), "SN-TEST-0001");

    // Failures disarmed, descriptors numbered afresh, old registrations gone.
    const int again = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(again, 100);
    EXPECT_EQ(vk_os_bind(again, reinterpret_cast<const sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(vk_eloop_register_read_sock(again, noop_read, nullptr, nullptr), 0);
    EXPECT_EQ(vk_os_sendto(again, "x", 1, 0, reinterpret_cast<const sockaddr *>(&a), sizeof a), 1);
    ASSERT_EQ(vk_ipc_open(&h), 0);
    vk_ipc_send_desc_t d{};
    auto msg = std::make_unique<vk_ipc_msg_t>();
    d.handle = &h;
    d.kind = VK_IPC_KIND_NOTIFY;
    d.msg = msg.get();
    std::strcpy(d.peer, "/vk/ipc/cli");
    EXPECT_EQ(vk_ipc_send_large(&d), 0);
}

}  // namespace
