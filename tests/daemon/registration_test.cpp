// Controller address, socket set-up and registration, in virtual time.
#include <cstring>

#include "core/ctrl_ip.h"
#include "core/ipc_codes.h"
#include "link/socket.h"
#include "session/registration.h"
#include "world.h"

using Registration = World;

TEST_F(Registration, RequestIsByteExact) {
    sim::node_set_mac("00a0b1c2d3e4");
    sim::node_set_serial("SN0123456789ABCD");
    sim::set_uptime(0x01020304);
    set_controller();
    auto reqs = sent_with_payload_type(TOVRIN_CTRL_REGISTER);
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].ip, kCtrl);
    EXPECT_EQ(reqs[0].port, TOVRIN_PORT);
    const std::string name = "54657374736572766572" + std::string(54 * 2, '0');  // "Testserver", NULs
    const std::string expect =
        "010c0068deadfeeda0000000"           // frame: v1, 12, 104, magic, flags 0xa0
        "1f000068"                           // type 0x1f, length 104
        "534e30313233343536373839414243 44"  // serial, 16 bytes
        "01020304"                           // uptime
        "00a0b1c2d3e4"                       // MAC
        "000b" +                             // reg_param, name_len 11
        name +                               // name, 64 bytes
        "00001388"                           // ka_rate 5000
        "00000000";                          // reg_extra
    EXPECT_EQ(hex(reqs[0].bytes), hex(unhex(expect)));
}

TEST_F(Registration, UptimeFailureStillSendsWithZero) {
    sim::set_uptime(0, true);
    set_controller();
    auto reqs = sent_with_payload_type(TOVRIN_CTRL_REGISTER);
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(hex({reqs[0].bytes.begin() + 32, reqs[0].bytes.begin() + 36}), "00000000");
    EXPECT_TRUE(logged("NOTE: tovrin_send_registration: Failed to get uptime.\n"));
}

TEST_F(Registration, BacksOffFromOneSecondToSixteen) {
    set_controller();
    sim::run_for(63 * kSec);
    EXPECT_EQ(times_of(TOVRIN_CTRL_REGISTER), secs({0, 1, 3, 7, 15, 31, 47, 63}));
    EXPECT_EQ(tovrin_gbl.reg_interval, 16000);
}

TEST_F(Registration, ResponseStopsRetriesAndBringsTheLinkUp) {
    set_controller();
    sim::run_for(2 * kSec);  // requests at 0 and 1 s, next due at 3 s
    from_ctrl(reg_response());
    EXPECT_EQ(tovrin_gbl.status, 1);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 0u);
    // UP reported to syslog and every endpoint, with a keepalive first.
    ASSERT_EQ(sim::syslog_lines().size(), 1u);
    EXPECT_EQ(sim::syslog_lines()[0].text, "AP-Ctrl Tunl Status UP CtrlIP 198.18.0.1");
    EXPECT_EQ(sim::syslog_lines()[0].priority, 6);
    EXPECT_EQ(times_of(TOVRIN_CTRL_KEEPALIVE).at(0), 2 * kSec);
}

TEST_F(Registration, ResponseWhileUpIsIgnored) {
    bring_up();
    clear_captures();
    from_ctrl(reg_response());
    EXPECT_TRUE(logged("NOTE: <<tovrin_register: Ignoring a reg response since UP\n"));
    EXPECT_TRUE(sim::ipc_sent().empty());
    EXPECT_EQ(sim::syslog_lines().size(), 1u);
}

TEST_F(Registration, ResponseBringsTheLinkUpEvenAfterRegistrationStopped) {
    set_controller(0);  // no controller configured: nothing sent, no timer
    EXPECT_TRUE(sim::udp_sent().empty());
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 0u);
    EXPECT_EQ(tovrin_gbl.peer_addr.sin_addr.s_addr, 0u);
    from_ctrl(reg_response(), 0);
    EXPECT_EQ(tovrin_gbl.status, 1);
}

TEST_F(Registration, EachControllerAddressReplacesTheRegistrationChain) {
    set_controller();
    sim::run_for(2 * kSec);  // requests at 0, 1; next due at 3 s
    set_controller(kOther);  // at 2 s: a new chain from 500 ms, the old one gone
    sim::run_for(20 * kSec - sim::now_us());
    EXPECT_EQ(times_of(TOVRIN_CTRL_REGISTER), secs({0, 1, 2, 3, 5, 9, 17}));
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 1u);
    for (const auto &d : sent_with_payload_type(TOVRIN_CTRL_REGISTER))
        if (d.at_us >= 2 * kSec) {
            EXPECT_EQ(d.ip, kOther);
        }
    from_ctrl(reg_response(), kOther);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 0u);
}
