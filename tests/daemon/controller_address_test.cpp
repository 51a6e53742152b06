// The controller address command: identity, socket set-up and its failures.
#include <cstring>

#include "core/ctrl_ip.h"
#include "link/socket.h"
#include "session/registration.h"
#include "world.h"

TEST(MacText, SixHexPairsWithOptionalColonsAndNothingPastTheText) {
    struct Case {
        const char *text;
        std::size_t len;
        int rc;
        const char *mac;
    };
    const Case cases[] = {
        {"00a0b1c2d3e4", 12, 0, "00a0b1c2d3e4"},
        {"00:a0:b1:c2:d3:e4", 17, 0, "00a0b1c2d3e4"},
        {"00A0B1C2D3E4", 12, 0, "00a0b1c2d3e4"},
        {"00a0b1c2d3e4ff", 14, 0, "00a0b1c2d3e4"},  // characters after six pairs ignored
        {"00:a0b1:c2d3e4", 14, 0, "00a0b1c2d3e4"},
        {"00a0b1c2d3e", 11, -1, nullptr},     // short
        {"00a0b1c2d3e4", 11, -1, nullptr},    // the digit past len is never read
        {"00a0b1c2d3g4", 12, -1, nullptr},    // not hex
        {"00::a0b1c2d3e4", 14, -1, nullptr},  // one colon at most
        {"", 0, -1, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t mac[6] = {};
        EXPECT_EQ(tovrin_parse_mac(c.text, c.len, mac), c.rc);
        if (c.mac != nullptr) {
            EXPECT_EQ(hex({mac, mac + 6}), c.mac);
        }
    }
}

using ControllerAddress = World;

TEST_F(ControllerAddress, RecordsIdentityAndOpensTheSocket) {
    tovrin_gbl.mode = 5;
    tovrin_gbl.mob_ctrl_ip = 9;
    testing::internal::CaptureStdout();
    set_controller();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "tovrin_proc_set_ctrl_ip: Received ctrlr ip 0xc6120001\n");
    EXPECT_STREQ(tovrin_gbl.name, "Testserver");
    EXPECT_EQ(tovrin_gbl.name_len, 11);
    EXPECT_EQ(tovrin_gbl.mode, 0);
    EXPECT_EQ(tovrin_gbl.mob_ctrl_ip, 0u);
    EXPECT_EQ(tovrin_gbl.reg_extra, 0u);
    EXPECT_EQ(hex({tovrin_gbl.vap_mac, tovrin_gbl.vap_mac + 6}), "0013a9c0ffee");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(tovrin_gbl.serial_num)), "SN-TEST-0001");
    EXPECT_EQ(sim::udp_bound_port(), TOVRIN_PORT);
    // The first close found no socket: no status was reported.
    EXPECT_TRUE(sim::syslog_lines().empty());
    EXPECT_TRUE(app_msgs().empty());
}

TEST_F(ControllerAddress, SetUpTwiceWithoutCloseChangesNothing) {
    set_controller();
    int sock = tovrin_gbl.sock;
    clear_captures();
    EXPECT_EQ(tovrin_comm_init(), 0);
    EXPECT_TRUE(logged("NOTE: >>tovrin_comm_init<<: SOCKET EXISTS. CAN'T REINITIALIZE\n\n"));
    EXPECT_EQ(tovrin_gbl.sock, sock);
    EXPECT_TRUE(sim::udp_sent().empty());
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 1u);
}

TEST_F(ControllerAddress, UnreadableMacOrSocketEndsTheProcess) {
    sim::node_set_mac(std::nullopt);
    EXPECT_EXIT(set_controller(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(logged("tovrin_proc_set_ctrl_ip: Failed to get node_vap_mac.\n"));

    sim::node_set_mac("not-a-mac-text");
    EXPECT_EXIT(set_controller(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(logged("is not six hex pairs"));

    sim::node_set_mac("0013a9c0ffee");
    sim::udp_fail_bind(EADDRINUSE);
    EXPECT_EXIT(set_controller(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(logged("NOTE: >>tovrin_comm_init<<: Failed to bind socket, errno 98.\n"));
    EXPECT_TRUE(logged(": Communication failure\n"));

    sim::udp_fail_bind(0);
    sim::udp_fail_socket(EMFILE);
    EXPECT_EXIT(set_controller(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(logged("NOTE: >>tovrin_comm_init<<: Failed to open socket, errno 24.\n"));
}

TEST_F(ControllerAddress, DravIpMessageIsLoggedAndChangesNothing) {
    bring_up();
    clear_captures();
    const std::vector<uint8_t> p = {TOVRIN_CTRL_DRAVIP, 0x55, 0, 12, 1, 2, 3, 4, 203, 0, 113, 7};
    from_ctrl(frame(TOVRIN_F_CTRL, 0, 0, 0, p));
    EXPECT_TRUE(logged("NOTE: <<tovrin_dravip: Recvd dravipmsg with 203.0.113.7 in mode 0\n"));
    EXPECT_EQ(tovrin_gbl.drav_ip, kCtrl);
    EXPECT_EQ(tovrin_gbl.peer_addr.sin_addr.s_addr, kCtrl);
    EXPECT_EQ(tovrin_gbl.status, 1);
}
