// Datagram reception: the header checks in their fixed order, the sender
// checks, the choice of consumer by the flags, and control packet dispatch.
#include <algorithm>
#include <cstring>

#include "link/send_queue.h"
#include "session/registration.h"
#include "world.h"

namespace {

// Every refusal line of the header checks, by the words that tell them apart.
const char *const kRefusals[] = {"even the hdr",           "with hdr_len",         "complete data length",
                                 "Probably trailing bits", "Improper hdr version", "Invalid magic number"};

int count_in(const std::string &text, const std::string &s) {
    int n = 0;
    for (std::size_t p = text.find(s); p != std::string::npos; p = text.find(s, p + 1)) ++n;
    return n;
}

class Reception : public World {
protected:
    // A whole single-fragment plain message for endpoint 101: accepted as it
    // stands, so each defect below is the only reason for a refusal.
    static std::vector<uint8_t> good_message() {
        return frame(0x24, 0, 0x11, 0, plain_payload(7, 101, {0xa1, 0xa2, 0xa3}));
    }
    static std::string fd_line(const char *fmt) { return strf(fmt, tovrin_gbl.sock); }
};

TEST_F(Reception, HeaderChecksRunInOrderAndEachDropsWithItsLine) {
    bring_up();
    ASSERT_GE(tovrin_gbl.sock, 0);
    const std::vector<uint8_t> good = good_message();
    ASSERT_EQ(good.size(), 27u);

    auto with = [&](std::initializer_list<std::pair<std::size_t, uint8_t>> edits, std::size_t size = 0) {
        std::vector<uint8_t> d = good;
        for (auto [at, v] : edits) d[at] = v;
        if (size != 0) d.resize(size, 0x5a);
        return d;
    };
    std::vector<uint8_t> oversize = frame(0x24, 0, 0x11, 0, std::vector<uint8_t>(1088, 0x21));
    ASSERT_EQ(oversize.size(), 1100u);

    struct Row {
        const char *what;
        std::vector<uint8_t> dgram;
        const char *refusal;  // one of kRefusals
        std::string line;
    };
    const int fd = tovrin_gbl.sock;
    const Row rows[] = {
        {"11 bytes", std::vector<uint8_t>(good.begin(), good.begin() + 11), "even the hdr",
         strf("DBG: <<tovrin_recv_handler: Not able to read %d even the hdr 12, recv 11.\n", fd)},
        {"hdr_len 11", with({{1, 11}}), "with hdr_len",
         strf("DBG: <<tovrin_recv_handler: Dropping data on %d with hdr_len 11.\n", fd)},
        {"data_len one more than sent", with({{3, 16}}), "complete data length",
         strf("DBG: <<tovrin_recv_handler: Not able to recv on %d complete data length 16, 15.\n", fd)},
        {"data_len one less than sent", with({{3, 14}}), "Probably trailing bits",
         strf("DBG: <<tovrin_recv_handler: fd %d Probably trailing bits at the end 1.\n", fd)},
        {"13 bytes, data_len 0", with({{3, 0}}, 13), "Probably trailing bits",
         strf("DBG: <<tovrin_recv_handler: fd %d Probably trailing bits at the end 1.\n", fd)},
        {"12 bytes, data_len 4", with({{3, 4}}, 12), "complete data length",
         strf("DBG: <<tovrin_recv_handler: Not able to recv on %d complete data length 4, 0.\n", fd)},
        {"1100 bytes cut to 1036", oversize, "complete data length",
         strf("DBG: <<tovrin_recv_handler: Not able to recv on %d complete data length 1088, 1024.\n", fd)},
        {"version 2", with({{0, 2}}), "Improper hdr version",
         strf("DBG: <<tovrin_recv_handler:  fd %d Improper hdr version 2.\n", fd)},
        {"version 2 and data_len too long", with({{0, 2}, {3, 40}}), "complete data length",
         strf("DBG: <<tovrin_recv_handler: Not able to recv on %d complete data length 40, 15.\n", fd)},
        {"version 2 and hdr_len 11", with({{0, 2}, {1, 11}}), "with hdr_len",
         strf("DBG: <<tovrin_recv_handler: Dropping data on %d with hdr_len 11.\n", fd)},
        {"magic deadbeef", with({{6, 0xbe}, {7, 0xef}}), "Invalid magic number",
         strf("DBG: <<tovrin_recv_handler: fd %d Invalid magic number hdr version 0xdeadbeef.\n", fd)},
        {"magic deadbeef and version 0", with({{0, 0}, {6, 0xbe}, {7, 0xef}}), "Improper hdr version",
         strf("DBG: <<tovrin_recv_handler:  fd %d Improper hdr version 0.\n", fd)},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        clear_captures();
        const auto before = link_bytes();
        const std::size_t mark = log_mark();
        from_ctrl(r.dgram);
        const std::string log = log_since(mark);
        EXPECT_NE(log.find(r.line), std::string::npos) << log;
        for (const char *other : kRefusals)
            EXPECT_EQ(count_in(log, other), other == std::string(r.refusal) ? 1 : 0) << other;
        EXPECT_EQ(count_in(log, "tovrin_recv_frag"), 0);
        EXPECT_TRUE(link_bytes() == before);
        EXPECT_TRUE(sent().empty());
        EXPECT_TRUE(app_msgs().empty());
    }

    // The same message without a defect is taken, acknowledged and delivered.
    clear_captures();
    from_ctrl(good);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(hex(sent()[0].bytes), "010c0000deadfeed08001100");
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(hex(app_msgs_to("/vk/ipc/gelvar")[0].data), "a1a2a3");
}

TEST_F(Reception, ZeroLengthDatagramPassesTheLengthChecksAndIsDispatched) {
    bring_up();
    const std::size_t mark = log_mark();
    from_ctrl(ack_for(3));
    const std::string log = log_since(mark);
    EXPECT_NE(log.find(fd_line("DBG: tovrin_recv_handler: Rcvd data on %d with len 0.\n")), std::string::npos);
    EXPECT_NE(
        log.find(strf("NOTE: <<tovrin_recv_ack: Ack rcvd not waiting data_len 0 from AP(%p) 198.18.0.1  AP Trans 3\n",
                      static_cast<void *>(&tovrin_gbl))),
        std::string::npos)
        << log;
    for (const char *r : kRefusals) EXPECT_EQ(count_in(log, r), 0) << r;
}

TEST_F(Reception, LongerHeaderIsSkippedWhole) {
    // hdr_len 13: one byte of header beyond ours, then the 15 payload bytes.
    bring_up();
    clear_captures();
    std::vector<uint8_t> d = good_message();
    d[1] = 13;
    d.insert(d.begin() + 12, 0xee);
    from_ctrl(d);
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(hex(app_msgs_to("/vk/ipc/gelvar")[0].data), "a1a2a3");
    EXPECT_EQ(hex(sent().at(0).bytes), "010c0000deadfeed08001100");
}

TEST_F(Reception, OnlyTheControllerMaySendDataAndAcks) {
    bring_up();
    const int fd = tovrin_gbl.sock;
    const std::string wrong =
        strf("DBG: <<tovrin_recv_handler: Read on %d from wrong DRAV 198.18.0.9 Real DRAV 198.18.0.1\n", fd);

    // A data message from elsewhere: no acknowledgement, no delivery, no trace in the record.
    clear_captures();
    auto before = link_bytes();
    std::size_t mark = log_mark();
    from_ctrl(good_message(), kOther);
    EXPECT_NE(log_since(mark).find(wrong), std::string::npos);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());
    EXPECT_TRUE(link_bytes() == before);

    // An acknowledgement from elsewhere does not complete the message in flight.
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {1, 2});
    ASSERT_EQ(data_sent().size(), 1u);
    const uint8_t ap = data_sent()[0].bytes[11];
    before = link_bytes();
    mark = log_mark();
    from_ctrl(ack_for(ap), kOther);
    EXPECT_NE(log_since(mark).find(wrong), std::string::npos);
    EXPECT_EQ(log_count("tovrin_recv_ack"), 0);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_TRUE(app_msgs().empty());
    run_answering(1 * kSec);
    ASSERT_EQ(data_sent().size(), 2u);
    EXPECT_EQ(data_sent()[1].bytes[8], 0x26);  // retransmitted: still unacknowledged

    // The port is not looked at: the controller's address alone counts.
    sim::udp_inject(kCtrl, ack_for(ap), 1234);
    sim::settle();
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(app_msgs_to("/vk/ipc/gelvar")[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ);
}

TEST_F(Reception, ControlPacketsAreTakenFromTheControllerOrTheMobilityController) {
    set_controller();
    const int fd = tovrin_gbl.sock;
    const auto before = link_bytes();
    std::size_t mark = log_mark();
    from_ctrl(reg_response(), kOther);
    EXPECT_NE(log_since(mark).find(strf("DBG: <<tovrin_recv_handler: Ctrl msg on %d from wrong DRAV/Mobility Ctrl "
                                        "198.18.0.9 Real DRAV 198.18.0.1 Real Mobility ctrl 0.0.0.0\n",
                                        fd)),
              std::string::npos);
    EXPECT_TRUE(link_bytes() == before);
    EXPECT_EQ(tovrin_gbl.status, 0);

    // A mobility controller address admits control packets from there, and only those.
    tovrin_gbl.mob_ctrl_ip = kOther;
    from_ctrl(reg_response(), kOther);
    EXPECT_EQ(tovrin_gbl.status, 1);
    clear_captures();
    mark = log_mark();
    from_ctrl(good_message(), kOther);
    EXPECT_NE(log_since(mark).find(strf("DBG: <<tovrin_recv_handler: Read on %d from wrong DRAV 198.18.0.9 Real DRAV "
                                        "198.18.0.1\n",
                                        fd)),
              std::string::npos);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(app_msgs().empty());
}

TEST_F(Reception, ControlFlagWinsOverAckAndAckOverData) {
    bring_up();
    // The same 36 bytes (a keepalive response) under each flags byte: only the flags choose.
    std::vector<uint8_t> body(36, 0);
    body[0] = TOVRIN_CTRL_KEEPALIVE;
    body[3] = 36;
    struct Row {
        uint8_t flags;
        const char *consumer;
    };
    const Row rows[] = {
        {0x88, "DBG: >>tovrin_recv_ctrl "}, {0x8c, "DBG: >>tovrin_recv_ctrl "}, {0xa5, "DBG: >>tovrin_recv_ctrl "},
        {0x08, "DBG: >>tovrin_recv_ack "},  {0x0c, "DBG: >>tovrin_recv_ack "},  {0x2f, "DBG: >>tovrin_recv_ack "},
        {0x00, "DBG: >>tovrin_recv_frag "}, {0x24, "DBG: >>tovrin_recv_frag "}, {0x04, "DBG: >>tovrin_recv_frag "},
    };
    const char *consumers[] = {"DBG: >>tovrin_recv_ctrl ", "DBG: >>tovrin_recv_ack ", "DBG: >>tovrin_recv_frag "};
    uint8_t trans = 0x40;
    for (const Row &r : rows) {
        SCOPED_TRACE(strf("flags 0x%02x", r.flags));
        const std::size_t mark = log_mark();
        from_ctrl(frame(r.flags, 0, trans++, 0, body));
        const std::string log = log_since(mark);
        for (const char *c : consumers) EXPECT_EQ(count_in(log, c), c == std::string(r.consumer) ? 1 : 0) << c;
    }
}

TEST_F(Reception, EachFlagsPathHasItsEffect) {
    // 0x88: a registration response brings the link up.
    set_controller();
    const std::vector<uint8_t> reg = reg_response();
    from_ctrl(frame(0x88, 0, 0, 0, std::vector<uint8_t>(reg.begin() + 12, reg.end())));
    EXPECT_EQ(tovrin_gbl.status, 1);

    // 0x0C: acknowledges the message in flight; its retry timer goes.
    app_send(101, 5, TOVRIN_MSG_F_ACK_REQ, {9});
    ASSERT_EQ(data_sent().size(), 1u);
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 1u);
    clear_captures();
    from_ctrl(frame(0x0c, 0, 0, 1, {}));  // the first message on a new socket is 1
    EXPECT_EQ(sim::pending_timeouts(tovrin_msg_retry), 0u);
    ASSERT_EQ(app_msgs_to("/vk/ipc/gelvar").size(), 1u);
    EXPECT_EQ(app_msgs_to("/vk/ipc/gelvar")[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ);

    // 0x00: a whole message without the data flag is delivered, and not acknowledged.
    clear_captures();
    from_ctrl(frame(0x00, 0, 0x33, 0, plain_payload(9, 102, {0x77})));
    ASSERT_EQ(app_msgs_to("/vk/ipc/hostun").size(), 1u);
    EXPECT_EQ(hex(app_msgs_to("/vk/ipc/hostun")[0].data), "77");
    EXPECT_TRUE(sent().empty());
}

class ControlDispatch : public World {};

TEST_F(ControlDispatch, EachTypeHasAnInclusiveMinimumByItsOwnLengthField) {
    set_controller();
    ASSERT_EQ(tovrin_gbl.status, 0);
    auto packet = [](uint8_t type, uint16_t len_field, std::size_t size) {
        std::vector<uint8_t> p(std::max<std::size_t>(size, 12), 0);
        p[0] = type;
        p[2] = static_cast<uint8_t>(len_field >> 8);
        p[3] = static_cast<uint8_t>(len_field);
        if (type == TOVRIN_CTRL_DRAVIP) p[8] = 10, p[9] = 1, p[10] = 2, p[11] = 3;
        p.resize(size);
        return frame(0xa0, 0, 0, 0, p);
    };
    struct Row {
        const char *what;
        std::vector<uint8_t> dgram;
        std::string line;  // the refusal, or for an accepted packet its handler's first line
        bool accepted;
        std::string own_entry;  // the type's own entry line, empty when it has none
    };
    const Row rows[] = {
        {"registration 103", packet(0x1f, 103, 103), "NOTE: <<tovrin_recv_ctrl: incorrect registration resp len 103\n",
         false, "DBG: >>tovrin_recv_ctrl Received Registration Resp - len 103\n"},
        {"keepalive 35", packet(0x20, 35, 35), "NOTE: <<tovrin_recv_ctrl: incorrect keepalive len 35\n", false, ""},
        {"keepalive 36", packet(0x20, 36, 36), "DBG: >>tovrin_keepalive<<: keep-alive resp recvd\n", true, ""},
        {"dravip 11", packet(0x22, 11, 11), "NOTE: <<tovrin_recv_ctrl: incorrect dravip msg len 11\n", false,
         "DBG: >>tovrin_recv_ctrl Received DRAVIP msg - len 11\n"},
        {"dravip 12", packet(0x22, 12, 12), "DBG: >>tovrin_dravip: Recv dravipmsg with 10.1.2.3\n", true,
         "DBG: >>tovrin_recv_ctrl Received DRAVIP msg - len 12\n"},
        {"type 0x21", packet(0x21, 104, 104), "NOTE: <<tovrin_recv_ctrl: Unsupported ctrl pkt 33\n", false, ""},
        {"data_len 3", packet(0x1f, 104, 3), "NOTE: <<tovrin_recv_ctrl: Ctrl pkt of 3 bytes has no header\n", false,
         ""},
        {"length field beyond data_len", packet(0x1f, 104, 60),
         "NOTE: <<tovrin_recv_ctrl: Ctrl pkt 31 claims len 104, received 60\n", false, ""},
        {"registration 104", packet(0x1f, 104, 104), "DBG: >>tovrin_register: Recv reg resp\n", true,
         "DBG: >>tovrin_recv_ctrl Received Registration Resp - len 104\n"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        const auto before = link_bytes();
        const std::size_t mark = log_mark();
        from_ctrl(r.dgram);
        const std::string log = log_since(mark);
        const std::size_t entry =
            log.find(strf("DBG: >>tovrin_recv_ctrl Received Notification from AP - len %zu\n", r.dgram.size() - 12));
        const std::size_t at = log.find(r.line);
        ASSERT_NE(entry, std::string::npos) << log;
        ASSERT_NE(at, std::string::npos) << log;
        if (!r.own_entry.empty()) {
            const std::size_t own = log.find(r.own_entry);
            ASSERT_NE(own, std::string::npos) << log;
            EXPECT_LT(entry, own);
            EXPECT_LT(own, at);
        } else {
            EXPECT_EQ(count_in(log, "DBG: >>tovrin_recv_ctrl Received"), 1) << log;  // the common entry only
        }
        if (!r.accepted) {
            EXPECT_TRUE(link_bytes() == before);
            EXPECT_EQ(count_in(log, "tovrin_register"), 0);
            EXPECT_EQ(count_in(log, "tovrin_keepalive"), 0);
            EXPECT_EQ(count_in(log, "tovrin_dravip"), 0);
        }
    }
    // Only the last, accepted registration response brought the link up.
    EXPECT_EQ(tovrin_gbl.status, 1);
    EXPECT_EQ(sim::pending_timeouts(tovrin_send_registration), 0u);
    EXPECT_EQ(log_count("DBG: <<tovrin_recv_ctrl Received keepalive - len 36\n"), 1);
}

}  // namespace
