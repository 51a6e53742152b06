// The log library's record, its own form of the configuration, and the file.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "platform/log.h"
#include "tests/host_order.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

using Words = std::array<int32_t, VK_LOG_CONF_WORDS>;

Words record() {
    Words w;
    std::memcpy(w.data(), vk_log_conf_data, sizeof vk_log_conf_data);
    return w;
}

// Words in host order, as fixtures' hex() shows them: four bytes to a group.
std::string words_hex(std::initializer_list<uint32_t> words) {
    std::string s;
    for (uint32_t w : words) s += (s.empty() ? "" : " ") + host_order::h32(w);
    return s;
}

std::string slurp(const std::string &file) {
    std::ifstream in(file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class Log : public ::testing::Test {
protected:
    TempDir dir;
    ScopedEnv log_dir{"VK_LOG_DIR", dir.path()};
    ScopedEnv no_level{"VK_LOG_LEVEL", std::nullopt};
    void TearDown() override {
        if (log_file_name) std::fclose(log_file_name);
        log_file_name = nullptr;
    }
};

TEST_F(Log, InitSetsEveryWord) {
    std::fill(std::begin(vk_log_conf_data), std::end(vk_log_conf_data), 99);
    VK_LOG_INIT("tovrin", 3, 1);
    EXPECT_EQ(record(), (Words{1, 0, 3, 1, 0, 1048576}));
}

// Without the variable the level is 3 whatever the caller offers: events, no traces.
TEST_F(Log, LevelFromTheEnvironmentWhenItIsANumber) {
    struct Case {
        std::optional<std::string> env;
        int32_t level;
    };
    const Case cases[] = {
        {std::nullopt, 3}, {"5", 5}, {"-2", -2}, {"0", 0}, {"", 3}, {"abc", 3}, {"5x", 3}, {"99999999999", 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.env.value_or("(unset)"));
        ScopedEnv level("VK_LOG_LEVEL", c.env);
        VK_LOG_INIT("tovrin", 7, 0);
        EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], c.level);
    }
}

TEST_F(Log, FileIsTheModuleInLowerCaseWrittenFromItsStart) {
    cur_log_size = 500;
    VK_LOG_INIT("ToVRin", 3, 0);
    ASSERT_NE(log_file_name, nullptr);
    EXPECT_EQ(cur_log_size, 0u);
    std::fputs("first line\n", log_file_name);
    std::fflush(log_file_name);
    EXPECT_EQ(slurp(dir / "tovrin.log"), "first line\n");
    struct stat st {};
    EXPECT_NE(stat((dir / "ToVRin.log").c_str(), &st), 0) << "no file under the name as given";
    EXPECT_NE(stat((dir / "tovrin.log.1").c_str(), &st), 0) << "nothing earlier to keep";
}

// The log of the run before survives as .1, replacing an older one; an empty
// one is not worth the older one's place.
TEST_F(Log, EarlierRunsLogIsKeptAsDotOne) {
    struct Case {
        const char *log, *dot1;  // before (nullptr: no file)
        const char *want_dot1;
    };
    const Case cases[] = {
        {"run two\n", nullptr, "run two\n"},
        {"run three\n", "run two\n", "run three\n"},
        {"", "run two\n", "run two\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.log);
        std::remove((dir / "tovrin.log.1").c_str());
        dir.write("tovrin.log", c.log);
        if (c.dot1) dir.write("tovrin.log.1", c.dot1);
        VK_LOG_INIT("TOVRIN", 4, 0);
        ASSERT_NE(log_file_name, nullptr);
        EXPECT_EQ(cur_log_size, 0u);
        EXPECT_EQ(slurp(dir / "tovrin.log"), "") << "a new log from its start";
        EXPECT_EQ(slurp(dir / "tovrin.log.1"), c.want_dot1);
        std::fclose(log_file_name);
        log_file_name = nullptr;
    }
}

// A log locked by a live process (here another open file of this one, which
// flock treats alike) is left whole, and so is its predecessor.
TEST_F(Log, LockedLogIsLeftWhole) {
    dir.write("tovrin.log", "the first daemon's lines\n");
    dir.write("tovrin.log.1", "its predecessor\n");
    const int holder = open((dir / "tovrin.log").c_str(), O_RDONLY);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
    VK_LOG_INIT("TOVRIN", 4, 0);
    EXPECT_EQ(log_file_name, nullptr) << "runs without a log file";
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 3) << "the record is set all the same";
    EXPECT_EQ(slurp(dir / "tovrin.log"), "the first daemon's lines\n");
    EXPECT_EQ(slurp(dir / "tovrin.log.1"), "its predecessor\n");

    close(holder);  // the holder is gone: the next start takes the log
    VK_LOG_INIT("TOVRIN", 4, 0);
    EXPECT_NE(log_file_name, nullptr);
    EXPECT_EQ(slurp(dir / "tovrin.log.1"), "the first daemon's lines\n");
}

// The library holds the lock for as long as its file is open: a second
// library in another process would be refused.
TEST_F(Log, OpenLogIsLockedAgainstOthers) {
    VK_LOG_INIT("TOVRIN", 4, 0);
    ASSERT_NE(log_file_name, nullptr);
    const int other = open((dir / "tovrin.log").c_str(), O_RDONLY);
    ASSERT_GE(other, 0);
    EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
    close(other);
}

// After an outside tool moved the file away, a reopen writes to a new file at
// the same name; without a move it appends to the same file.
TEST_F(Log, ReopenStartsAFileWhereTheOldOneWas) {
    EXPECT_EQ(VK_LOG_REOPEN(), -1) << "nothing set up to reopen";
    VK_LOG_INIT("TOVRIN", 4, 0);
    ASSERT_NE(log_file_name, nullptr);
    std::fputs("before\n", log_file_name);
    std::fflush(log_file_name);
    ASSERT_EQ(std::rename((dir / "tovrin.log").c_str(), (dir / "rotated").c_str()), 0);
    ASSERT_EQ(VK_LOG_REOPEN(), 0);
    std::fputs("after\n", log_file_name);
    std::fflush(log_file_name);
    EXPECT_EQ(slurp(dir / "rotated"), "before\n");
    EXPECT_EQ(slurp(dir / "tovrin.log"), "after\n");

    ASSERT_EQ(VK_LOG_REOPEN(), 0);
    EXPECT_EQ(cur_log_size, 6u) << "counts what the file holds already";
    std::fputs("again\n", log_file_name);
    std::fflush(log_file_name);
    EXPECT_EQ(slurp(dir / "tovrin.log"), "after\nagain\n");
}

TEST_F(Log, RunsWithoutAFileWhenItCannotOpenOne) {
    VK_LOG_INIT("tovrin", 3, 0);
    ASSERT_NE(log_file_name, nullptr);
    ScopedEnv missing("VK_LOG_DIR", dir / "no/such/dir");
    ScopedEnv level("VK_LOG_LEVEL", "4");
    VK_LOG_INIT("tovrin", 4, 0);
    EXPECT_EQ(log_file_name, nullptr);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 4) << "the record is set all the same";
}

TEST_F(Log, ConfigurationInItsOwnForm) {
    VK_LOG_INIT("tovrin", 4, 1);
    auto msg = std::make_unique<vk_ipc_msg_t>();
    msg->len = 999;
    VK_LOG_GET_CFG(msg.get());
    EXPECT_EQ(msg->len, 24u);
    EXPECT_EQ(hex(msg->payload, msg->len), words_hex({1, 0, 3, 1, 0, 1048576}));

    // Setting takes level, echo and maximum size; the other words stay.
    std::vector<uint8_t> set;
    for (uint32_t w : {11u, 12u, 0xfffffffeu, 0u, 15u, 131072u}) {
        const auto b = host_order::b32(w);
        set.insert(set.end(), b.begin(), b.end());
    }
    VK_LOG_SET_CFG(set.data());
    EXPECT_EQ(record(), (Words{1, 0, -2, 0, 0, 131072}));
    VK_LOG_GET_CFG(msg.get());
    EXPECT_EQ(hex(msg->payload, msg->len), words_hex({1, 0, 0xfffffffe, 0, 0, 131072}));
}

}  // namespace
}  // namespace platform_test
