// The IPC commands and the log rule, driven through the daemon's endpoint.
#include <sys/stat.h>

#include <cstring>

#include "core/ipc_codes.h"
#include "core/ipc_cmds.h"
#include "core/log_rule.h"
#include "core/startup.h"
#include "session/keepalive.h"
#include "platform/log.h"
#include "world.h"

namespace {

const sim::IpcSent *last_response() {
    const auto &all = sim::ipc_sent();
    for (auto it = all.rbegin(); it != all.rend(); ++it)
        if (it->kind == VK_IPC_KIND_RESP) return &*it;
    return nullptr;
}

int responses() {
    int n = 0;
    for (const auto &m : sim::ipc_sent()) n += m.kind == VK_IPC_KIND_RESP;
    return n;
}

}  // namespace

using IpcCommands = World;

TEST_F(IpcCommands, EveryRequestGetsOneResponseWithItsCodeToItsSender) {
    struct Case {
        uint32_t code;
        uint32_t len;
        const char *note;  // expected level-1 line, or null
    };
    const Case cases[] = {
        {TOVRIN_IPC_GET_DRAV, 8, nullptr},
        {TOVRIN_IPC_GET_LOG_CFG, 24, nullptr},
        {TOVRIN_IPC_DUMP, 0, nullptr},
        {TOVRIN_IPC_SEND_MSG, 0, "Not Implemented message 122 type Request/Response"},
        {TOVRIN_IPC_CTRL_IP, 0, "Not expecting message 149 type Request/Response"},
        {999, 0, "Not expecting message 999 type Request/Response"},
    };
    // The longest path an endpoint can have: the answer reaches it whole.
    const std::string asker = "/vk/ipc/" + std::string(VK_IPC_PATH_MAX - 1 - 8, 'a');
    for (const Case &c : cases) {
        SCOPED_TRACE(c.code);
        clear_captures();
        request(c.code, {1, 2, 3, 4}, asker);
        ASSERT_EQ(responses(), 1);
        const sim::IpcSent *r = last_response();
        EXPECT_EQ(r->type, c.code);
        EXPECT_EQ(r->flags, VK_IPC_F_RESPONSE);
        EXPECT_EQ(r->peer, asker);
        EXPECT_EQ(r->len, c.len);
        if (c.note != nullptr) {
            EXPECT_TRUE(logged(c.note));
        }
    }
}

TEST_F(IpcCommands, FlagsDecideBetweenRequestAndNotification) {
    // 0x2 makes any code a request; 0x4 (a response) is handled as a notification.
    sim::ipc_inject(TOVRIN_IPC_CTRL_IP, VK_IPC_F_RESPONSE, word_payload(kCtrl));
    sim::settle();
    EXPECT_EQ(tovrin_gbl.drav_ip, kCtrl);
    EXPECT_EQ(responses(), 0);
    sim::ipc_inject(TOVRIN_IPC_CTRL_IP, VK_IPC_F_REQUEST | VK_IPC_F_NOTIFY, word_payload(kOther));
    sim::settle();
    EXPECT_EQ(tovrin_gbl.drav_ip, kCtrl);
    EXPECT_EQ(responses(), 1);
}

TEST_F(IpcCommands, DumpLeavesAnEmptyFile) {
    FILE *f = std::fopen(TOVRIN_DUMP_FILE, "w");
    ASSERT_NE(f, nullptr);
    std::fputs("old content", f);
    std::fclose(f);
    request(TOVRIN_IPC_DUMP, {});
    struct stat st {};
    ASSERT_EQ(stat(TOVRIN_DUMP_FILE, &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(IpcCommands, UnknownNotificationsChangeNothingAndLogNothing) {
    std::string before = log_text();
    notify(14, {1, 2, 3, 4});
    notify(0, {});
    EXPECT_EQ(log_text(), before);
    EXPECT_TRUE(sim::ipc_sent().empty());
}

TEST_F(IpcCommands, SystemReadyAndSysmonHeartbeat) {
    notify(TOVRIN_IPC_SYSTEM_READY, {});
    notify(TOVRIN_IPC_SYSTEM_READY2, {});
    EXPECT_EQ(log_count("System Ready message received\n"), 2);
    notify(TOVRIN_IPC_SYSMON_HB, {});
    ASSERT_EQ(sim::ipc_sent().size(), 1u);
    const auto &hb = sim::ipc_sent()[0];
    EXPECT_EQ(hb.peer, "/vk/ipc/sysmon");
    EXPECT_EQ(hb.type, 2u);
    EXPECT_EQ(hex(hb.payload), hex(word_payload(80)));
}

TEST_F(IpcCommands, KeyIsStoredOnlyWhenItFitsBothTheFieldAndWhatArrived) {
    const std::vector<uint8_t> key16(16, 0xab);
    set_key(key16);
    EXPECT_EQ(tovrin_gbl.keylen, 16u);
    EXPECT_EQ(std::memcmp(tovrin_gbl.key, key16.data(), 16), 0);
    EXPECT_TRUE(logged("Set key IPC received\n"));

    struct Case {
        uint32_t claimed;
        std::size_t sent;
    };
    const Case refused[] = {{32, 32}, {21, 21}, {16, 15}, {0xffffffff, 4}};
    for (const Case &c : refused) {
        SCOPED_TRACE(c.claimed);
        std::vector<uint8_t> p = word_payload(c.claimed);
        p.resize(4 + c.sent, 0x11);
        notify(TOVRIN_IPC_SET_KEY, p);
        EXPECT_EQ(tovrin_gbl.keylen, 16u);
        EXPECT_EQ(tovrin_gbl.key[0], 0xab);
    }
    EXPECT_EQ(log_count("refused"), 4);
    // The key's bytes never reach the log.
    EXPECT_EQ(log_text().find("abababab"), std::string::npos);
    EXPECT_EQ(log_text().find("ABABABAB"), std::string::npos);
}

TEST_F(IpcCommands, EncryptionStateIsStoredAsGiven) {
    notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(2));
    EXPECT_EQ(tovrin_gbl.encrypt_state, 2);
    EXPECT_TRUE(logged("Set encrypt state IPC received\n"));
}

TEST_F(IpcCommands, ShortPayloadsAreRefusedBeforeAnyFieldIsRead) {
    struct Case {
        uint32_t code;
        std::size_t size;
        uint32_t need;
    };
    const Case cases[] = {
        {TOVRIN_IPC_CTRL_IP, 3, 4},     {TOVRIN_IPC_KARATE, 7, 8},        {TOVRIN_IPC_SET_KEY, 2, 4},
        {TOVRIN_IPC_SET_ENCRYPT, 0, 4}, {TOVRIN_IPC_SET_LOG_CFG, 20, 24},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.code);
        notify(c.code, std::vector<uint8_t>(c.size, 0x7f));
        const std::string line = strf("message %u refused: %zu payload bytes, needs %u", c.code, c.size, c.need);
        EXPECT_TRUE(logged(line)) << line;
    }
    EXPECT_EQ(tovrin_gbl.drav_ip, 0u);
    EXPECT_FALSE(sim::udp_open());
    EXPECT_EQ(ka_rate_arr[0].app_id, -1);
    EXPECT_EQ(tovrin_gbl.encrypt_state, 0);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 4);
}

TEST_F(IpcCommands, MalformedEnvelopesAreRefusedAndTheDaemonGoesOn) {
    std::vector<uint8_t> lying(12 + 4, 0);
    uint32_t type = TOVRIN_IPC_CTRL_IP, len = 400;
    std::memcpy(lying.data(), &type, 4);
    std::memcpy(lying.data() + 4, &len, 4);
    sim::ipc_inject_raw({1, 2, 3});  // shorter than an envelope
    sim::ipc_inject_raw(lying);
    sim::settle();
    EXPECT_EQ(log_count("vk_ipc_recv error"), 2);
    EXPECT_EQ(tovrin_gbl.drav_ip, 0u);
    request(TOVRIN_IPC_GET_DRAV, {});
    EXPECT_EQ(responses(), 1);
}

TEST_F(IpcCommands, LogConfigurationRoundTripsThroughIpc) {
    request(TOVRIN_IPC_GET_LOG_CFG, {});
    ASSERT_EQ(last_response()->len, 24u);
    std::vector<uint8_t> cfg = last_response()->payload;
    int32_t w[6];
    std::memcpy(w, cfg.data(), 24);
    EXPECT_EQ(w[2], 4);
    EXPECT_EQ(w[3], 0);
    w[2] = 1;
    w[5] = 4096;
    std::memcpy(cfg.data(), w, 24);
    notify(TOVRIN_IPC_SET_LOG_CFG, cfg);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_LEVEL], 1);
    EXPECT_EQ(vk_log_conf_data[VK_LOG_W_MAXSIZE], 4096);
}

TEST_F(IpcCommands, ConfigurationUpdatePrintsItsLineWhateverTheLevel) {
    set_level(0);
    testing::internal::CaptureStdout();
    notify(TOVRIN_IPC_CFG_UPDATE, {});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "*******I am called don't know what to do :) !!!!!!!!!!!!!\n");
}

using LogRule = World;

TEST_F(LogRule, LinesCarryThePrefixAndFollowTheLevel) {
    sim::run_for(2 * kSec + 345 * kMs);  // from the simulated epoch, 1700000000
    // By level: whether a note, an info and a debug line are written.
    const bool shown[5][3] = {
        {false, false, false}, {true, false, false}, {true, false, false}, {true, true, false}, {true, true, true}};
    for (int level = 0; level < 5; ++level) {
        SCOPED_TRACE(level);
        set_level(level);
        const std::size_t mark = log_mark();
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: n%d\n", level);
        TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: i%d\n", level);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: d%d\n", level);
        const std::string added = log_since(mark);
        EXPECT_EQ(added.find(strf(":1700000002:345: NOTE: n%d\n", level)) != std::string::npos, shown[level][0]);
        EXPECT_EQ(added.find(strf(":1700000002:345: INFO: i%d\n", level)) != std::string::npos, shown[level][1]);
        EXPECT_EQ(added.find(strf(":1700000002:345: DBG: d%d\n", level)) != std::string::npos, shown[level][2]);
    }
}

TEST_F(LogRule, FileRewindsOnlyOncePastTheMaximum) {
    vk_log_conf_data[VK_LOG_W_MAXSIZE] = 100;
    cur_log_size = 100;  // equal: no rewind
    long pos = std::ftell(log_file_name);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "x\n");
    EXPECT_GT(std::ftell(log_file_name), pos);
    EXPECT_GT(cur_log_size, 100u);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "y\n");  // one past: rewinds, then writes
    EXPECT_EQ(log_text().rfind(":", 0), 0u);
    EXPECT_EQ(cur_log_size, static_cast<uint32_t>(std::ftell(log_file_name)));
    EXPECT_EQ(log_text().substr(log_text().find(": ") + 2, 2), "y\n");
}

TEST_F(LogRule, EchoPrintsTheMessageWithoutPrefixEvenWithoutAFile) {
    std::fclose(log_file_name);
    log_file_name = nullptr;
    cur_log_size = 0;
    vk_log_conf_data[VK_LOG_W_ECHO] = 1;
    testing::internal::CaptureStdout();
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: echo %d\n", 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "NOTE: echo 5\n");
    EXPECT_EQ(cur_log_size, 0u);
}

using StartUpDeath = World;

TEST_F(StartUpDeath, AnEndpointThatCannotOpenEndsTheProcessSilentlyAtLevelZero) {
    set_level(0);
    sim::ipc_fail_open(EADDRINUSE);
    EXPECT_EXIT(tovrin_vk_ipc_init(), testing::ExitedWithCode(1), "");
    EXPECT_EQ(log_text().find("IPC open failure"), std::string::npos);
}
