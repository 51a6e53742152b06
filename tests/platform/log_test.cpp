// The log library's record, its own form of the configuration, and the file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <bit>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "platform/log.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

using Words = std::array<int32_t, VK_LOG_CONF_WORDS>;

Words record() {
    Words w;
    std::memcpy(w.data(), vk_log_conf_data, sizeof vk_log_conf_data);
    return w;
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

TEST_F(Log, LevelFromTheEnvironmentWhenItIsANumber) {
    struct Case {
        std::optional<std::string> env;
        int32_t level;
    };
    const Case cases[] = {
        {std::nullopt, 7}, {"5", 5}, {"-2", -2}, {"0", 0}, {"", 7}, {"abc", 7}, {"5x", 7}, {"99999999999", 7},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.env.value_or("(unset)"));
        ScopedEnv level("VK_LOG_LEVEL", c.env);
        VK_LOG_INIT("tovrin", 7, 0);
        EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], c.level);
    }
}

TEST_F(Log, FileIsTheModuleInLowerCaseWrittenFromItsStart) {
    dir.write("tovrin.log", "an old run's lines\n");
    cur_log_size = 500;
    VK_LOG_INIT("ToVRin", 3, 0);
    ASSERT_NE(log_file_name, nullptr);
    EXPECT_EQ(cur_log_size, 0u);
    EXPECT_EQ(slurp(dir / "tovrin.log"), "") << "opened for writing from its start";
    std::fputs("first line\n", log_file_name);
    std::fflush(log_file_name);
    EXPECT_EQ(slurp(dir / "tovrin.log"), "first line\n");
    struct stat st {};
    EXPECT_NE(stat((dir / "ToVRin.log").c_str(), &st), 0) << "no file under the name as given";
}

TEST_F(Log, RunsWithoutAFileWhenItCannotOpenOne) {
    VK_LOG_INIT("tovrin", 3, 0);
    ASSERT_NE(log_file_name, nullptr);
    ScopedEnv missing("VK_LOG_DIR", dir / "no/such/dir");
    VK_LOG_INIT("tovrin", 4, 0);
    EXPECT_EQ(log_file_name, nullptr);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 4) << "the record is set all the same";
}

TEST_F(Log, ConfigurationInItsOwnForm) {
    if (std::endian::native != std::endian::little) GTEST_SKIP() << "bytes below are little-endian";
    VK_LOG_INIT("tovrin", 4, 1);
    auto msg = std::make_unique<vk_ipc_msg_t>();
    msg->len = 999;
    VK_LOG_GET_CFG(msg.get());
    EXPECT_EQ(msg->len, 24u);
    EXPECT_EQ(hex(msg->payload, msg->len), "01000000 00000000 04000000 01000000 00000000 00001000");

    // Setting takes level, echo and maximum size; the other words stay.
    const std::vector<uint8_t> set = {11, 0, 0, 0, 12, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff,
                                      0,  0, 0, 0, 15, 0, 0, 0, 0x00, 0x00, 0x02, 0x00};
    VK_LOG_SET_CFG(set.data());
    EXPECT_EQ(record(), (Words{1, 0, -2, 0, 0, 131072}));
    VK_LOG_GET_CFG(msg.get());
    EXPECT_EQ(hex(msg->payload, msg->len), "01000000 00000000 feffffff 00000000 00000000 00000200");
}

}  // namespace
}  // namespace platform_test
