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
    sim::run_for(2500 * kMs);  // three keepalives sent
    clear_captures();
    tovrin_status_down(&tovrin_gbl);
    std::vector<AppSeen> reports = app_msgs();
    ASSERT_EQ(reports.size(), 7u);
    const char *order[] = {"/vk/ipc/gelvar", "/vk/ipc/hostun", "/vk/ipc/prindal", "/vk/ipc/quelon",
                           "/vk/ipc/rastim", "/vk/ipc/sorvek", "/vk/ipc/tumbel"};
    for (std::size_t i = 0; i < 7; ++i) {
        SCOPED_TRACE(order[i]);
        const AppSeen &r = reports[i];
        EXPECT_EQ(r.peer, order[i]);
        EXPECT_EQ(r.envelope_flags, VK_IPC_F_NOTIFY);
        EXPECT_EQ(r.kind, VK_IPC_KIND_NOTIFY);
        EXPECT_EQ(r.hdr.flags, TOVRIN_MSG_F_STATUS);
        EXPECT_EQ(r.hdr.src_ep, 0);
        EXPECT_EQ(r.hdr.dst_ep, 0);
        EXPECT_EQ(r.hdr.len, 8u);
        EXPECT_EQ(r.hdr.id, 3u);  // keepalives sent so far
        std::vector<uint8_t> want(8);
        std::memcpy(want.data(), &kCtrl, 4);
        EXPECT_EQ(hex(r.data), hex(want));  // status 0
    }
}

TEST_F(LinkStatus, DownWhileUpRegistersBeforeReportingAndClearsEncryption) {
    bring_up();
    set_key(std::vector<uint8_t>(16, 1));
    notify(TOVRIN_IPC_SET_ENCRYPT, {1, 0, 0, 0});
    clear_captures();
    uint64_t now = sim::now_us();
    tovrin_status_down(&tovrin_gbl);
    auto reqs = sent_with_payload_type(TOVRIN_CTRL_REGISTER);
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].at_us, now);
    EXPECT_EQ(tovrin_gbl.encrypt_state, 0);
    EXPECT_EQ(tovrin_gbl.keylen, 16u);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_keepalive), 0u);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 1u);
    // The UP report carried status 1; the DOWN one carries 0.
    auto to_gelvar = app_msgs_to("/vk/ipc/gelvar");
    ASSERT_EQ(to_gelvar.size(), 1u);
    EXPECT_EQ(to_gelvar[0].data[4], 0);
}

TEST_F(LinkStatus, DownWhileAlreadyDownStillReportsButDoesNotRegister) {
    set_controller();
    clear_captures();
    tovrin_status_down(&tovrin_gbl);
    EXPECT_TRUE(sent_with_payload_type(TOVRIN_CTRL_REGISTER).empty());
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 1u);  // the pending one is kept
    EXPECT_EQ(app_msgs().size(), 7u);
    EXPECT_EQ(sim::syslog_lines().back().text, "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1");
}

TEST_F(LinkStatus, NewControllerAddressWhileUpClosesDownAndRegistersAnew) {
    bring_up();
    clear_captures();
    set_controller(kOther);
    // The close reported DOWN; its registration found no socket.
    EXPECT_TRUE(logged("NOTE: <<tovrin_send_registration: Failed to send, socket -1 not open\n"));
    EXPECT_EQ(sim::syslog_lines().back().text, "AP-Ctrl Tunl Status DOWN CtrlIP 198.18.0.1");
    EXPECT_NE(tovrin_gbl.sock, -1);
    EXPECT_EQ(sim::udp_bound_port(), TOVRIN_PORT);
    auto reqs = sent_with_payload_type(TOVRIN_CTRL_REGISTER);
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].ip, kOther);
    EXPECT_EQ(tovrin_gbl.drav_ip, kOther);
    // Datagrams from the old controller now change nothing.
    from_ctrl(reg_response(), kCtrl);
    EXPECT_EQ(tovrin_gbl.status, 0);
    from_ctrl(reg_response(), kOther);
    EXPECT_EQ(tovrin_gbl.status, 1);
}
