// System monitor notifications, checked as the bytes that reach the monitor.
#include <gtest/gtest.h>

#include <bit>
#include <functional>

#include "platform/sysmon.h"
#include "tests/platform/fixtures.h"
#include "tests/platform/ipc_helpers.h"

namespace platform_test {
namespace {

class Sysmon : public ::testing::Test {
protected:
    TempDir root;
    ScopedEnv env{"VK_IPC_ROOT", root.path()};
};

TEST_F(Sysmon, NotificationsReachTheMonitor) {
    if (std::endian::native != std::endian::little) GTEST_SKIP() << "bytes below are little-endian";
    Endpoint daemon("/vk/ipc/tovrin");
    ASSERT_EQ(daemon.rc, 0);
    ASSERT_EQ(mkdir((root / "vk").c_str(), 0770) == 0 || errno == EEXIST, true);
    RawSocket monitor(root / "vk/ipc/sysmon");
    struct Case {
        const char *what;
        std::function<int()> call;
        std::string bytes;  // type, length, flags, monitor number
    };
    const Case cases[] = {
        {"handshake", [&] { return sysmon_send_handshake(&daemon.h, 77); }, "01000000 04000000 01000000 4d000000"},
        {"heartbeat", [&] { return sysmon_send_hb(&daemon.h, -2); }, "02000000 04000000 01000000 feffffff"},
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
