// The application relay: answers to local senders, the endpoint table, message
// ids and the size limits of messages in both directions.
#include "core/ipc_codes.h"
#include "relay/app_msg.h"
#include "world.h"

namespace {

class Relay : public World {
protected:
    // Answers (not status reports) the daemon sent over IPC since the last clear.
    std::vector<AppSeen> answers() const {
        std::vector<AppSeen> out;
        for (const auto &a : app_msgs())
            if (!(a.hdr.flags & TOVRIN_MSG_F_STATUS)) out.push_back(a);
        return out;
    }
};

// The sender gets its header back if it asked (0x100, 0x200 for a response): once the
// controller acknowledged the message, or at once, marked failed, while the link is down.
// The answer goes to the endpoint of src_ep, not to the IPC sender (/vk/ipc/test).
TEST_F(Relay, SenderGetsItsHeaderBackIfItAsked) {
    struct Row {
        bool up;
        uint32_t flags;
        uint32_t answer_flags;  // 0: no answer
        uint32_t envelope;
    };
    const Row rows[] = {
        {false, 0x100, 0x1000100, VK_IPC_F_NOTIFY}, {false, 0x300, 0x1000300, VK_IPC_F_RESPONSE}, {false, 0x0, 0, 0},
        {true, 0x100, 0x100, VK_IPC_F_NOTIFY},      {true, 0x300, 0x300, VK_IPC_F_RESPONSE},      {true, 0x0, 0, 0},
        {true, 0x40100, 0x40100, VK_IPC_F_NOTIFY},
    };
    set_controller();  // registering: the link is down
    for (const Row &r : rows) {
        SCOPED_TRACE(r.flags);
        if (r.up && tovrin_gbl.status == 0) bring_up();
        clear_captures();
        app_send(101, 5, r.flags, {1, 2, 3, 4});
        if (r.up) {
            ASSERT_EQ(data_sent().size(), 1u);
            EXPECT_TRUE(answers().empty());  // nothing before the controller's acknowledgement
            from_ctrl(ack_for(data_sent()[0].bytes[11]));
        } else {
            EXPECT_TRUE(data_sent().empty());
            EXPECT_TRUE(logged(strf("NOTE: <<tovrin_proc_send_msg: No Conn failed from tester to 5 msg flags 0x%08x\n",
                                    r.answer_flags != 0 ? r.answer_flags : r.flags)));
        }
        const auto a = answers();
        ASSERT_EQ(a.size(), r.answer_flags != 0 ? 1u : 0u);
        if (a.empty()) continue;
        EXPECT_EQ(a[0].peer, "/vk/ipc/gelvar");
        EXPECT_EQ(a[0].hdr.flags, r.answer_flags);
        EXPECT_EQ(a[0].envelope_flags, r.envelope);
        EXPECT_TRUE(a[0].data.empty());
        EXPECT_EQ(a[0].hdr.len, 4u);  // still the length of the message it answers
        EXPECT_EQ(a[0].hdr.id, 77u);
        EXPECT_EQ(a[0].hdr.dst_ep, 5);
        EXPECT_STREQ(a[0].hdr.src_name, "tester");
    }
}

// Every endpoint id to its path; 103 and 104 are gaps in the table, 100 and 110 just
// outside it. Every controller message takes the next id from 100000, delivered or not.
TEST_F(Relay, EndpointTableAndIdsOfControllerMessages) {
    bring_up();
    const std::pair<int32_t, const char *> table[] = {
        {101, "/vk/ipc/gelvar"},
        {102, "/vk/ipc/hostun"},
        {103, nullptr},
        {104, nullptr},
        {105, "/vk/ipc/prindal"},
        {106, "/vk/ipc/quelon"},
        {107, "/vk/ipc/rastim"},
        {108, "/vk/ipc/sorvek"},
        {100, nullptr},
        {110, nullptr},
        {0, nullptr},
        {-1, nullptr},
        {109, "/vk/ipc/tumbel"},
    };
    uint32_t id = 100000;
    uint8_t trans = 1;
    for (auto [ep, path] : table) {
        SCOPED_TRACE(ep);
        clear_captures();
        const std::size_t mark = log_mark();
        from_ctrl(frame(0x24, 0, trans++, 0, plain_payload(33, ep, {0xab})));
        EXPECT_EQ(sent().size(), 1u);  // acknowledged in every case
        if (path == nullptr) {
            EXPECT_TRUE(sim::ipc_sent().empty());
            EXPECT_NE(log_since(mark).find(
                          strf("NOTE: <<tovrin_send_app: Msg flag 0x00010000 from Unknown endpoint %d\n", ep)),
                      std::string::npos);
        } else {
            const auto got = app_msgs();
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got[0].peer, path);
            EXPECT_EQ(got[0].hdr.id, id);
            EXPECT_EQ(got[0].envelope_flags, VK_IPC_F_NOTIFY);
        }
        ++id;
    }
}

// Up to 16304 data bytes, what one IPC message carries; past that it is dropped. Both acknowledged.
TEST_F(Relay, ControllerMessageArrivesAsHeaderAndDataIfItFitsAnIpcMessage) {
    bring_up();
    uint8_t trans = 0x10;
    for (std::size_t n : {0, 1, 100, 1500, 16304, 16372}) {
        SCOPED_TRACE(n);
        clear_captures();
        const auto data = pattern(n);
        for (const auto &f : fragments(plain_payload(-7, 105, data), trans++)) from_ctrl(f);
        EXPECT_EQ(sent().size(), 1u);
        if (n > 16304) {
            EXPECT_TRUE(sim::ipc_sent().empty());
            EXPECT_TRUE(logged(
                strf("NOTE: <<tovrin_send_app: Msg of %zu data bytes for endpoint 105 exceeds 16304, dropped\n", n)));
            continue;
        }
        ASSERT_EQ(sim::ipc_sent().size(), 1u);
        const auto &m = sim::ipc_sent()[0];
        EXPECT_EQ(m.type, TOVRIN_IPC_APP_MSG);
        EXPECT_EQ(m.len, 84 + n);
        EXPECT_EQ(m.peer, "/vk/ipc/prindal");
        const AppSeen a = decode_app(m);
        EXPECT_EQ(a.hdr.src_ep, -7);
        EXPECT_EQ(a.hdr.dst_ep, 105);
        EXPECT_EQ(a.hdr.flags, TOVRIN_MSG_F_FROM_CTRL);
        EXPECT_EQ(a.hdr.len, n);
        EXPECT_EQ(std::string(a.hdr.src_name, sizeof a.hdr.src_name), std::string(64, '\0'));
        EXPECT_TRUE(a.data == data);
    }
}

// Refused before it is queued; a sender that asked for an answer gets its header back, marked failed.
TEST_F(Relay, LocalMessageWhoseLengthDisagreesWithWhatArrivedIsRefused) {
    bring_up();
    struct Row {
        uint32_t len;
        std::size_t bytes;
        uint32_t flags;
    };
    const Row rows[] = {{10, 8, TOVRIN_MSG_F_ACK_REQ}, {8, 10, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_SYNC}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.len);
        clear_captures();
        const std::size_t mark = log_mark();
        app_send_hdr(app_header(102, "tester", 4242, r.flags, 5, r.len), pattern(r.bytes));
        EXPECT_TRUE(data_sent().empty());
        EXPECT_NE(log_since(mark).find("NOTE: <<tovrin_proc_send_msg:"), std::string::npos);
        const auto a = answers();
        ASSERT_EQ(a.size(), 1u);
        EXPECT_EQ(a[0].peer, "/vk/ipc/hostun");
        EXPECT_EQ(a[0].hdr.flags, r.flags | TOVRIN_MSG_F_FAILED);
        EXPECT_EQ(a[0].hdr.len, r.len);
    }
}

}  // namespace
