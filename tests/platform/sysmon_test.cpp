// System monitor notifications, checked as the bytes that reach the monitor.
#include <gtest/gtest.h>

#include <functional>

#include "platform/sysmon.h"
#include "tests/host_order.h"
#include "tests/platform/fixtures.h"
#include "tests/platform/ipc_helpers.h"

namespace platform_test {
namespace {

class Sysmon : public ::testing::Test {
protected:
    TempDir root;
    ScopedEnv env{"VK_IPC_ROOT", root.path()};
};

std::string words(std::initializer_list<uint32_t> ws) {
    std::string s;
    for (uint32_t w : ws) s += (s.empty() ? "" : " ") + host_order::h32(w);
    return s;
}

TEST_F(Sysmon, NotificationsReachTheMonitor) {
    Endpoint daemon("/vk/ipc/tovrin");
    ASSERT_EQ(daemon.rc, 0);
    ASSERT_EQ(mkdir((root / "vk").c_str(), 0770) == 0 || errno == EEXIST, true);
    RawSocket monitor(root / "vk/ipc/sysmon");
    struct Case {
        const char *what;
        std::function<int()> call;
        std::string bytes;  // type, length, flags, monitor number: each a word in host order
    };
    const Case cases[] = {
        {"handshake", [&] { return sysmon_send_handshake(&daemon.h, 77); }, words({1, 4, 1, 77})},
        {"heartbeat", [&] { return sysmon_send_hb(&daemon.h, -2); }, words({2, 4, 1, 0xfffffffe})},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.call(), 0);
        const std::vector<uint8_t> got = monitor.receive();
        EXPECT_EQ(hex(got.data(), got.size()), c.bytes);
    }
}

TEST_F(Sysmon, NobodyListeningFailsTheSend) {
    Endpoint daemon("/vk/ipc/tovrin");
    ASSERT_EQ(daemon.rc, 0);
    errno = 0;
    EXPECT_EQ(sysmon_send_handshake(&daemon.h, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(sysmon_send_hb(&daemon.h, 1), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace platform_test
