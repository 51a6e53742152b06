// The operating-system seam: calls reach the C library, receives never block.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/os.h"

namespace {

TEST(Os, UdpRoundTripAndReceiveThatDoesNotBlock) {
    const int fd = vk_os_socket(AF_INET, SOCK_DGRAM, 0);  // a blocking socket
    ASSERT_GE(fd, 0);
    sockaddr_in addr{}, from{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *sa = reinterpret_cast<sockaddr *>(&addr);
    socklen_t len = sizeof addr, from_len = sizeof from;
    ASSERT_EQ(vk_os_bind(fd, sa, len), 0);
    ASSERT_EQ(getsockname(fd, sa, &len), 0);
    EXPECT_EQ(vk_os_sendto(fd, "datagram", 8, 0, sa, len), 8);
    char in[64];
    ASSERT_EQ(vk_os_recvfrom(fd, in, sizeof in, 0, reinterpret_cast<sockaddr *>(&from), &from_len), 8);
    EXPECT_EQ(std::string(in, 8), "datagram");
    EXPECT_EQ(from.sin_port, addr.sin_port);
    // A receive that waited would hang until the test's time limit.
    errno = 0;
    EXPECT_EQ(vk_os_recvfrom(fd, in, sizeof in, 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(vk_os_close(fd), 0);
    EXPECT_EQ(vk_os_close(fd), -1);
}

TEST(Os, ClocksAgreeRandomFollowsTheSeedAndSysinfoTheUptime) {
    const time_t before = vk_os_time(nullptr);
    vk_timeb tb{};
    vk_os_ftime(&tb);
    time_t stored = 0;
    const time_t after = vk_os_time(&stored);
    EXPECT_LE(before, tb.time);
    // time() may read the coarse clock, a tick behind: across a second's edge
    // it can still name the second before.
    EXPECT_LE(tb.time, after + 1);
    EXPECT_LT(tb.millitm, 1000);
    EXPECT_EQ(stored, after);

    const auto sequence = [](unsigned seed) {
        vk_os_srand(seed);
        return std::vector<int>{vk_os_rand(), vk_os_rand(), vk_os_rand()};
    };
    EXPECT_EQ(sequence(42), sequence(42));
    EXPECT_NE(sequence(42), sequence(43));
    struct sysinfo info {};
    ASSERT_EQ(vk_os_sysinfo(&info), 0);
    EXPECT_GT(info.uptime, 0);
}

}  // namespace
