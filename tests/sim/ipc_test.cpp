// Simulated IPC: endpoints, delivery, refusal of malformed envelopes, capture.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "platform/ipc.h"
#include "platform/sysmon.h"
#include "sim.h"

namespace {

constexpr uint64_t kMs = 1000;
constexpr char kDaemon[] = "/vk/ipc/tovrin";

// An endpoint owned by the test, closed when it goes.
struct Endpoint {
    vk_ipc_handle_t h{};
    int rc;
    explicit Endpoint(const char *path) {
        std::strncpy(h.path, path, sizeof h.path - 1);
        rc = vk_ipc_open(&h);
    }
    ~Endpoint() { vk_ipc_close(&h); }
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;
};

// One receive attempt as the daemon makes it: the handle's bit set, a whole buffer.
struct Received {
    int rc, err;
    uint8_t received;
    std::unique_ptr<vk_ipc_msg_t> msg = std::make_unique<vk_ipc_msg_t>();
    std::string sender;
};

Received receive(vk_ipc_handle_t &h, bool in_set = true) {
    Received r;
    fd_set set;
    FD_ZERO(&set);
    if (in_set) FD_SET(h.sock, &set);
    vk_ipc_recv_desc_t rec{};
    rec.handle = &h;
    rec.msg = r.msg.get();
    std::memset(rec.sender, 'x', sizeof rec.sender);
    r.received = 0xaa;
    errno = 0;
    r.rc = vk_ipc_recv_large(&set, &rec, &r.received);
    r.err = errno;
    r.sender.assign(rec.sender, strnlen(rec.sender, sizeof rec.sender));
    return r;
}

std::vector<uint8_t> envelope(uint32_t type, uint32_t len_word, uint32_t flags, std::size_t payload) {
    std::vector<uint8_t> d(VK_IPC_HDR_LEN + payload, 0x5a);
    const uint32_t hdr[3] = {type, len_word, flags};
    std::memcpy(d.data(), hdr, sizeof hdr);
    return d;
}

int send(vk_ipc_handle_t &h, bool resp, uint32_t kind, const char *peer, uint32_t type, uint32_t flags,
         const std::vector<uint8_t> &payload, uint32_t len) {
    auto msg = std::make_unique<vk_ipc_msg_t>();
    msg->type = type;
    msg->len = len;
    msg->flags = flags;
    if (!payload.empty()) std::memcpy(msg->payload, payload.data(), payload.size());
    vk_ipc_send_desc_t d{};
    d.handle = &h;
    d.kind = kind;
    d.msg = msg.get();
    std::strncpy(d.peer, peer, sizeof d.peer - 1);
    return resp ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
}

void count_call(int, void *calls, void *) { ++*static_cast<int *>(calls); }

class SimIpc : public ::testing::Test {
protected:
    void SetUp() override { sim::reset(); }
};

TEST_F(SimIpc, EndpointsAreExclusivePerPath) {
    EXPECT_FALSE(sim::ipc_is_open(kDaemon));
    {
        Endpoint daemon(kDaemon);
        ASSERT_EQ(daemon.rc, 0);
        EXPECT_GE(daemon.h.sock, 100);
        EXPECT_LT(daemon.h.sock, FD_SETSIZE);
        EXPECT_TRUE(sim::ipc_is_open(kDaemon));
        Endpoint twin(kDaemon);
        EXPECT_EQ(twin.rc, -1);
        EXPECT_EQ(errno, EADDRINUSE);
        Endpoint cli("/vk/ipc/cli");
        EXPECT_EQ(cli.rc, 0);
        EXPECT_NE(cli.h.sock, daemon.h.sock);
    }
    EXPECT_FALSE(sim::ipc_is_open(kDaemon));

    sim::ipc_fail_open(EACCES);
    Endpoint refused(kDaemon);
    EXPECT_EQ(refused.rc, -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(sim::ipc_is_open(kDaemon));
    Endpoint again(kDaemon);  // armed failures hit once
    EXPECT_EQ(again.rc, 0);
}

TEST_F(SimIpc, InjectedEnvelopesReachTheReadHandlerWithTheirSender) {
    Endpoint daemon(kDaemon);
    ASSERT_EQ(daemon.rc, 0);
    int calls = 0;
    ASSERT_EQ(vk_eloop_register_read_sock(daemon.h.sock, count_call, &calls, nullptr), 0);
    sim::ipc_inject(7, VK_IPC_F_NOTIFY, std::vector<uint8_t>{0x01, 0x02, 0x03}, "/vk/ipc/other");
    sim::ipc_inject(28, VK_IPC_F_REQUEST, {});
    sim::ipc_inject(9, 0, {}, "/vk/ipc/test", "/vk/ipc/nobody");  // no such endpoint: dropped
    sim::settle();
    EXPECT_EQ(calls, 2);  // count_call reads nothing: once per pending envelope
    vk_eloop_unregister_read_sock(daemon.h.sock);

    // Not in the set: nothing read, nothing consumed.
    Received skipped = receive(daemon.h, false);
    EXPECT_EQ(skipped.rc, 0);
    EXPECT_EQ(skipped.received, 0);

    Received a = receive(daemon.h);
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.received, 1);
    EXPECT_EQ(a.msg->type, 7u);
    EXPECT_EQ(a.msg->len, 3u);
    EXPECT_EQ(a.msg->flags, VK_IPC_F_NOTIFY);
    EXPECT_EQ(std::vector<uint8_t>(a.msg->payload, a.msg->payload + 3), (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(a.sender, "/vk/ipc/other");

    Received b = receive(daemon.h);
    ASSERT_EQ(b.rc, 0);
    EXPECT_EQ(b.received, 1);
    EXPECT_EQ(b.msg->type, 28u);
    EXPECT_EQ(b.msg->len, 0u);
    EXPECT_EQ(b.msg->flags, VK_IPC_F_REQUEST);
    EXPECT_EQ(b.sender, "/vk/ipc/test");

    // Nothing pending: no error, nothing received.
    Received none = receive(daemon.h);
    EXPECT_EQ(none.rc, 0);
    EXPECT_EQ(none.received, 0);
    EXPECT_EQ(none.sender, "");
}

TEST_F(SimIpc, MalformedEnvelopesAreConsumedAndRefused) {
    Endpoint daemon(kDaemon);
    ASSERT_EQ(daemon.rc, 0);
    struct Case {
        const char *what;
        std::vector<uint8_t> datagram;
    };
    const std::vector<Case> cases = {
        {"empty", {}},
        {"shorter than the header", std::vector<uint8_t>(VK_IPC_HDR_LEN - 1, 0)},
        {"length word above what arrived", envelope(5, 4, 0, 3)},
        {"length word below what arrived", envelope(5, 2, 0, 3)},
        {"length word huge", envelope(5, 0xffffffffu, 0, 3)},
        {"longer than an envelope", envelope(5, VK_IPC_PAYLOAD_MAX + 1, 0, VK_IPC_PAYLOAD_MAX + 1)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        // The errno the shared check gives for these bytes is the one to see.
        auto copy = std::make_unique<vk_ipc_msg_t>();
        if (!c.datagram.empty())
            std::memcpy(copy.get(), c.datagram.data(), std::min(c.datagram.size(), VK_IPC_MSG_MAX));
        const int want = vk_ipc_check_envelope(copy.get(), c.datagram.size());
        EXPECT_TRUE(want == EBADMSG || want == EMSGSIZE) << want;

        sim::ipc_inject_raw(c.datagram, "/vk/ipc/bad");
        sim::ipc_inject(3, VK_IPC_F_NOTIFY, std::vector<uint8_t>{0xee});
        Received bad = receive(daemon.h);
        EXPECT_EQ(bad.rc, -1);
        EXPECT_EQ(bad.err, want);
        EXPECT_EQ(bad.received, 0);
        EXPECT_EQ(bad.sender, "/vk/ipc/bad");
        // Consumed: the good envelope behind it comes next.
        Received good = receive(daemon.h);
        EXPECT_EQ(good.rc, 0);
        EXPECT_EQ(good.received, 1);
        EXPECT_EQ(good.msg->type, 3u);
        EXPECT_EQ(good.msg->len, 1u);
    }
    // A whole envelope of the largest size passes.
    sim::ipc_inject_raw(envelope(4, VK_IPC_PAYLOAD_MAX, 0, VK_IPC_PAYLOAD_MAX));
    Received max = receive(daemon.h);
    EXPECT_EQ(max.rc, 0);
    EXPECT_EQ(max.msg->len, VK_IPC_PAYLOAD_MAX);
    EXPECT_EQ(max.msg->payload[VK_IPC_PAYLOAD_MAX - 1], 0x5a);
}

TEST_F(SimIpc, SendsAreCapturedAndDeliveredToOpenEndpoints) {
    Endpoint daemon(kDaemon);
    Endpoint cli("/vk/ipc/cli");
    ASSERT_EQ(daemon.rc, 0);
    ASSERT_EQ(cli.rc, 0);
    sim::run_for(250 * kMs);
    EXPECT_EQ(
        send(daemon.h, false, VK_IPC_KIND_NOTIFY, "/vk/ipc/cli", 29, VK_IPC_F_NOTIFY, {0xde, 0xad, 0xbe, 0xef}, 4), 0);
    EXPECT_EQ(send(daemon.h, true, VK_IPC_KIND_RESP, "/vk/ipc/elsewhere", 28, VK_IPC_F_RESPONSE, {0x42}, 1), 0);
    // Refused before anything leaves: too long, no peer, a peer field without its NUL.
    EXPECT_EQ(send(daemon.h, false, VK_IPC_KIND_NOTIFY, "/vk/ipc/cli", 1, 0, {}, VK_IPC_PAYLOAD_MAX + 1), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(send(daemon.h, false, VK_IPC_KIND_NOTIFY, "", 1, 0, {}, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    {
        auto msg = std::make_unique<vk_ipc_msg_t>();
        vk_ipc_send_desc_t d{};
        d.handle = &daemon.h;
        d.kind = VK_IPC_KIND_NOTIFY;
        d.msg = msg.get();
        std::memset(d.peer, 'p', sizeof d.peer);
        EXPECT_EQ(vk_ipc_send_large(&d), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
    }

    const auto &sent = sim::ipc_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].at_us, 250 * kMs);
    EXPECT_EQ(sent[0].kind, VK_IPC_KIND_NOTIFY);
    EXPECT_EQ(sent[0].peer, "/vk/ipc/cli");
    EXPECT_EQ(sent[0].type, 29u);
    EXPECT_EQ(sent[0].len, 4u);
    EXPECT_EQ(sent[0].flags, VK_IPC_F_NOTIFY);
    EXPECT_EQ(sent[0].payload, (std::vector<uint8_t>{0xde, 0xad, 0xbe, 0xef}));
    EXPECT_TRUE(sent[0].delivered);
    EXPECT_EQ(sent[1].kind, VK_IPC_KIND_RESP);
    EXPECT_EQ(sent[1].peer, "/vk/ipc/elsewhere");
    EXPECT_EQ(sent[1].type, 28u);
    EXPECT_EQ(sent[1].flags, VK_IPC_F_RESPONSE);
    EXPECT_EQ(sent[1].payload, (std::vector<uint8_t>{0x42}));
    EXPECT_TRUE(sent[1].delivered);

    // The open peer got exactly the envelope, from the sender's path.
    Received got = receive(cli.h);
    ASSERT_EQ(got.rc, 0);
    EXPECT_EQ(got.msg->type, 29u);
    EXPECT_EQ(got.msg->len, 4u);
    EXPECT_EQ(got.msg->payload[3], 0xef);
    EXPECT_EQ(got.sender, kDaemon);
    EXPECT_EQ(receive(cli.h).received, 0);

    sim::ipc_clear_sent();
    EXPECT_TRUE(sim::ipc_sent().empty());
}

// One side of a conversation: reads an envelope and answers the sender with
// the number it got plus one, until the number reaches 5.
struct Talker {
    vk_ipc_handle_t *h;
    std::vector<uint32_t> heard;
};

void talk(int, void *talker, void *) {
    auto *t = static_cast<Talker *>(talker);
    Received r = receive(*t->h);
    if (!r.received) return;
    t->heard.push_back(r.msg->type);
    if (r.msg->type < 5) send(*t->h, false, VK_IPC_KIND_NOTIFY, r.sender.c_str(), r.msg->type + 1, 0, {}, 0);
}

TEST_F(SimIpc, ExchangesBetweenEndpointsCompleteWithinOneSettle) {
    Endpoint a("/vk/ipc/a");
    Endpoint b("/vk/ipc/b");
    ASSERT_EQ(a.rc, 0);
    ASSERT_EQ(b.rc, 0);
    Talker ta{&a.h, {}}, tb{&b.h, {}};
    ASSERT_EQ(vk_eloop_register_read_sock(a.h.sock, talk, &ta, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(b.h.sock, talk, &tb, nullptr), 0);
    sim::ipc_inject(0, 0, {}, "/vk/ipc/b", "/vk/ipc/a");
    sim::settle();
    EXPECT_EQ(ta.heard, (std::vector<uint32_t>{0, 2, 4}));
    EXPECT_EQ(tb.heard, (std::vector<uint32_t>{1, 3, 5}));
    EXPECT_EQ(sim::now_us(), 0u);
    EXPECT_EQ(sim::ipc_sent().size(), 5u);
}

TEST_F(SimIpc, MissingPeersFailWithEnoentUntilBack) {
    Endpoint daemon(kDaemon);
    Endpoint cli("/vk/ipc/cli");
    ASSERT_EQ(daemon.rc, 0);
    sim::ipc_set_missing("/vk/ipc/cli", true);
    errno = 0;
    EXPECT_EQ(send(daemon.h, false, VK_IPC_KIND_NOTIFY, "/vk/ipc/cli", 1, 0, {7}, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sysmon_send_hb(&daemon.h, 3), 0);  // other peers unaffected
    sim::ipc_set_missing("/vk/ipc/cli", false);
    EXPECT_EQ(send(daemon.h, false, VK_IPC_KIND_NOTIFY, "/vk/ipc/cli", 2, 0, {8}, 1), 0);

    const auto &sent = sim::ipc_sent();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_FALSE(sent[0].delivered);
    EXPECT_EQ(sent[0].type, 1u);
    EXPECT_TRUE(sent[1].delivered);
    EXPECT_TRUE(sent[2].delivered);
    // Only the send made while it was back arrived.
    Received got = receive(cli.h);
    EXPECT_EQ(got.received, 1);
    EXPECT_EQ(got.msg->type, 2u);
    EXPECT_EQ(receive(cli.h).received, 0);

    // A handle that is not open cannot send.
    vk_ipc_handle_t closed{};
    closed.sock = -1;
    EXPECT_EQ(send(closed, false, VK_IPC_KIND_NOTIFY, "/vk/ipc/cli", 1, 0, {}, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(sent.size(), 3u);
}

TEST_F(SimIpc, SysmonNotificationsCarryTypeAndNumber) {
    Endpoint daemon(kDaemon);
    ASSERT_EQ(daemon.rc, 0);
    EXPECT_EQ(sysmon_send_handshake(&daemon.h, 0x01020304), 0);
    EXPECT_EQ(sysmon_send_hb(&daemon.h, -2), 0);
    sim::ipc_set_missing(SYSMON_IPC_PATH, true);
    EXPECT_EQ(sysmon_send_hb(&daemon.h, 5), -1);
    EXPECT_EQ(errno, ENOENT);

    const auto &sent = sim::ipc_sent();
    ASSERT_EQ(sent.size(), 3u);
    struct Want {
        uint32_t type;
        int32_t num;
        bool delivered;
    };
    const Want want[] = {{1, 0x01020304, true}, {2, -2, true}, {2, 5, false}};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sent[i].kind, VK_IPC_KIND_NOTIFY);
        EXPECT_EQ(sent[i].peer, "/vk/ipc/sysmon");
        EXPECT_EQ(sent[i].type, want[i].type);
        EXPECT_EQ(sent[i].len, 4u);
        std::vector<uint8_t> num(4);
        std::memcpy(num.data(), &want[i].num, 4);
        EXPECT_EQ(sent[i].payload, num);
        EXPECT_EQ(sent[i].delivered, want[i].delivered);
    }
}

}  // namespace
