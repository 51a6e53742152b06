// The link going down and the reports of every change.
#include <cstring>

#include "core/ipc_codes.h"
#include "relay/endpoints.h"
#include "session/keepalive.h"
#include "session/link_status.h"
#include "session/registration.h"
#include "world.h"

using LinkStatus = World;

TEST_F(LinkStatus, ReportGoesToEveryEndpointInTableOrder) {
    sim::ipc_set_missing("/vk/ipc/hostun", true);  // one unreachable endpoint stops nothing
    bring_up();
    sim::run_for(2500 * kMs);  // three keepalives sent: the report's id
    clear_captures();
    tovrin_status_down(&tovrin_gbl);
    std::vector<uint8_t> data(8);  // the controller's address, then status 0
    std::memcpy(data.data(), &kCtrl, 4);
    const auto report = app_payload(app_header(0, "", 3, TOVRIN_MSG_F_STATUS, 0, data.size()), data);
    const char *order[] = {"/vk/ipc/gelvar", "/vk/ipc/hostun", "/vk/ipc/prindal", "/vk/ipc/quelon",
                           "/vk/ipc/rastim", "/vk/ipc/sorvek", "/vk/ipc/tumbel"};
    ASSERT_EQ(sim::ipc_sent().size(), std::size(order));
    for (std::size_t i = 0; i < std::size(order); ++i) {
        SCOPED_TRACE(order[i]);
        const sim::IpcSent &m = sim::ipc_sent()[i];
        EXPECT_EQ(m.peer, order[i]);
        EXPECT_EQ(m.type, TOVRIN_IPC_APP_MSG);
        EXPECT_EQ(m.flags, VK_IPC_F_NOTIFY);
        EXPECT_EQ(m.kind, VK_IPC_KIND_NOTIFY);
        EXPECT_EQ(hex(m.payload), hex(report));
    }
}

// Registering again and the timers a link loss leaves are in the keepalive timeline.
TEST_F(LinkStatus, DownClearsEncryptionButKeepsTheKey) {
    bring_up();
    set_key(std::vector<uint8_t>(16, 1));
    notify(TOVRIN_IPC_SET_ENCRYPT, {1, 0, 0, 0});
    tovrin_status_down(&tovrin_gbl);
    EXPECT_EQ(tovrin_gbl.encrypt_state, 0);
    EXPECT_EQ(tovrin_gbl.keylen, 16u);
}

TEST_F(LinkStatus, DownWhileAlreadyDownStillReportsButDoesNotRegister) {
    set_controller();
    clear_captures();
    tovrin_status_down(&tovrin_gbl);
    EXPECT_TRUE(sent_with_payload_type(TOVRIN_CTRL_REGISTER).empty());
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 1u);  // the pending one is kept
    EXPECT_EQ(app_msgs().size(), 7u);
}

TEST_F(LinkStatus, NewControllerAddressWhileUpClosesDownAndRegistersAnew) {
    bring_up();
    clear_captures();
    set_controller(kOther);
    // The close reported DOWN; its registration found no socket.
    EXPECT_TRUE(logged("NOTE: <<tovrin_send_registration: Failed to send, socket -1 not open\n"));
    EXPECT_EQ(sim::syslog_lines().back().text, "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1");
    EXPECT_EQ(sent_with_payload_type(TOVRIN_CTRL_REGISTER).size(), 1u);
    EXPECT_EQ(tovrin_gbl.drav_ip, kOther);
    // Datagrams from the old controller now change nothing.
    from_ctrl(reg_response(), kCtrl);
    EXPECT_EQ(tovrin_gbl.status, 0);
    from_ctrl(reg_response(), kOther);
    EXPECT_EQ(tovrin_gbl.status, 1);
}
