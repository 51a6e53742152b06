// The log library: its level from the environment, the file, its rotation and lock.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "platform/log.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

// The file's content; "(none)" when there is no such file.
std::string slurp(const std::string &file) {
    std::ifstream in(file);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "(none)";
}

class Log : public ::testing::Test {
protected:
    TempDir dir;
    ScopedEnv log_dir{"VK_LOG_DIR", dir.path()};
    ScopedEnv no_level{"VK_LOG_LEVEL", std::nullopt};
    void TearDown() override { close_log(); }
    static void close_log() {
        if (log_file_name) std::fclose(log_file_name);
        log_file_name = nullptr;
    }
    static void write_log(const char *text) {
        std::fputs(text, log_file_name);
        std::fflush(log_file_name);
    }
};

// Without the variable the level is 3 whatever the caller offers: events, no traces.
TEST_F(Log, LevelFromTheEnvironmentWhenItIsANumber) {
    const std::pair<std::optional<std::string>, int32_t> cases[] = {
        {std::nullopt, 3}, {"5", 5}, {"-2", -2}, {"0", 0}, {"", 3}, {"abc", 3}, {"5x", 3}, {"99999999999", 3},
    };
    for (const auto &[env, level] : cases) {
        ScopedEnv set("VK_LOG_LEVEL", env);
        VK_LOG_INIT("tovrin", 7, 0);
        EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], level) << env.value_or("(unset)");
    }
}

// The file is the module's name in lower case, written from its start; the log
// of the run before survives as .1, replacing an older one, unless it is empty.
TEST_F(Log, EarlierRunsLogIsKeptAsDotOne) {
    const std::array<const char *, 3> cases[] = {  // .log and .1 before (nullptr: no file), .1 after
        {nullptr, nullptr, "(none)"},
        {"run two\n", nullptr, "run two\n"},
        {"run three\n", "run two\n", "run three\n"},
        {"", "run two\n", "run two\n"},
    };
    for (const auto &[log, dot1, want_dot1] : cases) {
        SCOPED_TRACE(log ? log : "no log");
        std::remove((dir / "tovrin.log.1").c_str());
        if (log) dir.write("tovrin.log", log);
        if (dot1) dir.write("tovrin.log.1", dot1);
        cur_log_size = 500;
        VK_LOG_INIT("ToVRin", 4, 0);
        ASSERT_NE(log_file_name, nullptr);
        EXPECT_EQ(cur_log_size, 0u);
        write_log("new\n");
        EXPECT_EQ(slurp(dir / "tovrin.log"), "new\n");
        EXPECT_EQ(slurp(dir / "tovrin.log.1"), want_dot1);
        close_log();
    }
    EXPECT_EQ(slurp(dir / "ToVRin.log"), "(none)");
}

// The open log is locked: a second daemon (here another open file of this
// process, which flock treats alike) runs without a file. That it moves nothing
// is checked end to end, where the second daemon meets the lock.
TEST_F(Log, LockedLogIsLeftWhole) {
    VK_LOG_INIT("tovrin", 4, 0);
    ASSERT_NE(log_file_name, nullptr);
    const int other = open((dir / "tovrin.log").c_str(), O_RDONLY);
    ASSERT_GE(other, 0);
    EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
    FILE *first = log_file_name;
    log_file_name = nullptr;
    ScopedEnv level("VK_LOG_LEVEL", "5");
    VK_LOG_INIT("tovrin", 4, 0);
    EXPECT_EQ(log_file_name, nullptr);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 5) << "the record is set all the same";

    std::fclose(first);  // the holder is gone: the next start takes the log
    VK_LOG_INIT("tovrin", 4, 0);
    EXPECT_NE(log_file_name, nullptr);
    close(other);
}

// Moving the file away before a reopen is the daemon's SIGHUP, run end to end;
// without a move the reopen appends to the same file.
TEST_F(Log, ReopenAppendsToTheFileItFinds) {
    EXPECT_EQ(VK_LOG_REOPEN(), -1) << "nothing set up to reopen";
    VK_LOG_INIT("tovrin", 4, 0);
    ASSERT_NE(log_file_name, nullptr);
    write_log("before\n");
    ASSERT_EQ(VK_LOG_REOPEN(), 0);
    EXPECT_EQ(cur_log_size, 7u) << "counts what the file holds already";
    write_log("again\n");
    EXPECT_EQ(slurp(dir / "tovrin.log"), "before\nagain\n");
}

}  // namespace
}  // namespace platform_test
