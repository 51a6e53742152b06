// What no one but the controller and the key's owner may see or change.
#include <cstring>

#include "core/ipc_codes.h"
#include "world.h"

using Security = World;

TEST_F(Security, KeyBytesNeverReachTheLogAtAnyLevel) {
    const std::vector<uint8_t> key = unhex("c0ffee11deadbeef2b7e151628aed2a6");
    for (int level : {4, 3, 1, 0}) {
        SCOPED_TRACE(level);
        set_level(level);
        set_key(key);
        bring_up();
        notify(TOVRIN_IPC_SET_ENCRYPT, {1, 0, 0, 0});
        app_send(105, 102, TOVRIN_MSG_F_ACK_REQ, std::vector<uint8_t>(40, 'k'));
        // A refused key too: the longer field must not be echoed either.
        std::vector<uint8_t> longer = key;
        longer.insert(longer.end(), key.begin(), key.end());
        set_key(longer);
        tovrin_gbl.status = 0;
    }
    std::string text = log_text();
    for (const char *piece : {"c0ffee", "C0FFEE", "deadbeef", "DEADBEEF", "2b7e1516", "2B7E1516"})
        EXPECT_EQ(text.find(piece), std::string::npos) << piece;
    EXPECT_NE(text.find("keylen=16"), std::string::npos);
}

TEST_F(Security, DatagramsFromAnyOtherAddressChangeNothing) {
    bring_up();
    app_send(105, 102, TOVRIN_MSG_F_ACK_REQ, {'x'});  // one message in flight
    clear_captures();
    const std::vector<uint8_t> before = link_bytes();
    const uint8_t ap_trans = tovrin_gbl.comm.head->hdr.ap_trans;
    const std::vector<std::vector<uint8_t>> forged = {
        reg_response(),
        ka_response(),
        ack_for(ap_trans),
        frame(TOVRIN_F_CTRL, 0, 0, 0, {TOVRIN_CTRL_DRAVIP, 0, 0, 12, 0, 0, 0, 0, 10, 0, 0, 1}),
        fragments(plain_payload(200, 101, {'h', 'i'}), 7)[0],
    };
    for (uint32_t src : {kOther, uint32_t{0}, inet_addr("198.18.0.2")}) {
        for (const auto &d : forged) from_ctrl(d, src);
    }
    EXPECT_EQ(link_bytes(), before);
    EXPECT_TRUE(sim::udp_sent().empty());
    EXPECT_TRUE(app_msgs().empty());
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 1);
    // The same acknowledgement from the controller completes the message.
    from_ctrl(ack_for(ap_trans));
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
}

TEST_F(Security, ControllerAddressOnlyChangesByLocalCommand) {
    bring_up();
    std::vector<uint8_t> p = {TOVRIN_CTRL_DRAVIP, 0, 0, 12, 0, 0, 0, 0};
    p.resize(12);
    std::memcpy(&p[8], &kOther, 4);
    from_ctrl(frame(TOVRIN_F_CTRL, 0, 0, 0, p));
    EXPECT_EQ(tovrin_gbl.drav_ip, kCtrl);
    clear_captures();
    sim::run_for(kSec);
    for (const auto &d : sim::udp_sent()) EXPECT_EQ(d.ip, kCtrl);
}
