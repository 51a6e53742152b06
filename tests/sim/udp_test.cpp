// Simulated UDP: sockets, capture of sends, delivery of injected datagrams.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/select.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "platform/os.h"
#include "sim.h"

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSec = 1000 * kMs;
constexpr uint16_t kLinkPort = 6650;

uint32_t ip(const char *text) { return inet_addr(text); }

std::vector<uint8_t> bytes(const std::string &s) { return {s.begin(), s.end()}; }

sockaddr_in inet(uint32_t ip_net, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = ip_net;
    return a;
}

int bind_port(int fd, uint16_t port) {
    const sockaddr_in a = inet(INADDR_ANY, port);
    return vk_os_bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a);
}

// The daemon's link socket: AF_INET datagram bound to 6650.
int open_link_socket() {
    const int fd = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(bind_port(fd, kLinkPort), 0);
    return fd;
}

// What a read handler saw.
struct Reads {
    std::vector<std::pair<uint64_t, std::string>> got;  // time, text
    std::size_t calls = 0;
    std::size_t per_call = 1;  // datagrams read per callback (0: reads none)
};

void read_some(int fd, void *reads, void *) {
    auto *r = static_cast<Reads *>(reads);
    ++r->calls;
    for (std::size_t i = 0; i < r->per_call; ++i) {
        std::array<char, 64> buf{};
        const ssize_t n = vk_os_recvfrom(fd, buf.data(), buf.size(), 0, nullptr, nullptr);
        if (n < 0) return;
        r->got.emplace_back(sim::now_us(), std::string(buf.data(), static_cast<size_t>(n)));
    }
}

void note_timeout(void *reads, void *name) {
    static_cast<Reads *>(reads)->got.emplace_back(sim::now_us(), static_cast<const char *>(name));
}

void inject_reply(void *, void *) { sim::udp_inject(inet_addr("10.0.0.1"), bytes("reply")); }

class SimUdp : public ::testing::Test {
protected:
    void SetUp() override { sim::reset(); }
};

TEST_F(SimUdp, SocketsAreInetDatagramOnFakeDescriptors) {
    EXPECT_FALSE(sim::udp_open());
    struct Refused {
        int domain, type, protocol, err;
    };
    for (const Refused &r :
         {Refused{AF_INET6, SOCK_DGRAM, 0, EAFNOSUPPORT}, Refused{AF_UNIX, SOCK_DGRAM, 0, EAFNOSUPPORT},
          Refused{AF_INET, SOCK_STREAM, 0, EPROTONOSUPPORT},
          Refused{AF_INET, SOCK_DGRAM, IPPROTO_TCP, EPROTONOSUPPORT}}) {
        errno = 0;
        EXPECT_EQ(vk_os_socket(r.domain, r.type, r.protocol), -1);
        EXPECT_EQ(errno, r.err);
    }
    EXPECT_FALSE(sim::udp_open());

    const int fd = vk_os_socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP);
    ASSERT_GE(fd, 100);
    ASSERT_LT(fd, FD_SETSIZE);
    EXPECT_TRUE(sim::udp_open());
    EXPECT_EQ(sim::udp_bound_port(), 0);
    EXPECT_EQ(bind_port(fd, kLinkPort), 0);
    EXPECT_EQ(sim::udp_bound_port(), kLinkPort);

    const int second = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(second, 100);
    EXPECT_NE(second, fd);
    EXPECT_EQ(bind_port(second, kLinkPort), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(bind_port(fd, 7000), -1);  // bound already
    EXPECT_EQ(errno, EINVAL);

    // Closed numbers are handed out again, lowest first.
    EXPECT_EQ(vk_os_close(fd), 0);
    EXPECT_EQ(vk_os_close(fd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(vk_os_socket(AF_INET, SOCK_DGRAM, 0), fd);
}

TEST_F(SimUdp, ArmedFailuresHitOnceAndSendFailuresUntilDisarmed) {
    sim::udp_fail_socket(EMFILE);
    EXPECT_EQ(vk_os_socket(AF_INET, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, EMFILE);
    const int fd = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);

    sim::udp_fail_bind(EACCES);
    EXPECT_EQ(bind_port(fd, kLinkPort), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(sim::udp_bound_port(), 0);
    EXPECT_EQ(bind_port(fd, kLinkPort), 0);

    const sockaddr_in to = inet(ip("10.0.0.1"), kLinkPort);
    const auto *sa = reinterpret_cast<const sockaddr *>(&to);
    sim::udp_fail_send(ENETUNREACH);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(vk_os_sendto(fd, "x", 1, 0, sa, sizeof to), -1);
        EXPECT_EQ(errno, ENETUNREACH);
    }
    EXPECT_TRUE(sim::udp_sent().empty());
    sim::udp_fail_send(0);
    EXPECT_EQ(vk_os_sendto(fd, "x", 1, 0, sa, sizeof to), 1);
    EXPECT_EQ(sim::udp_sent().size(), 1u);
}

TEST_F(SimUdp, SendsAreCapturedWithTimeDestinationAndBytes) {
    const int fd = open_link_socket();
    const sockaddr_in a = inet(ip("192.0.2.7"), kLinkPort);
    const sockaddr_in b = inet(ip("198.51.100.1"), 9999);
    const std::array<uint8_t, 5> payload{0x00, 0xff, 0x10, 0x00, 0x7f};
    EXPECT_EQ(vk_os_sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&a), sizeof a), 5);
    sim::run_for(1500 * kMs);
    EXPECT_EQ(vk_os_sendto(fd, "hi", 2, 0, reinterpret_cast<const sockaddr *>(&b), sizeof b), 2);
    // Not an IPv4 destination: refused and not captured.
    sockaddr_in bad = b;
    bad.sin_family = AF_INET6;
    EXPECT_EQ(vk_os_sendto(fd, "no", 2, 0, reinterpret_cast<const sockaddr *>(&bad), sizeof bad), -1);
    EXPECT_EQ(vk_os_sendto(fd + 1, "no", 2, 0, reinterpret_cast<const sockaddr *>(&b), sizeof b), -1);
    EXPECT_EQ(errno, EBADF);

    const auto &sent = sim::udp_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].at_us, 0u);
    EXPECT_EQ(sent[0].ip, ip("192.0.2.7"));
    EXPECT_EQ(sent[0].port, kLinkPort);
    EXPECT_EQ(sent[0].bytes, std::vector<uint8_t>(payload.begin(), payload.end()));
    EXPECT_EQ(sent[1].at_us, 1500 * kMs);
    EXPECT_EQ(sent[1].ip, ip("198.51.100.1"));
    EXPECT_EQ(sent[1].port, 9999);
    EXPECT_EQ(sent[1].bytes, bytes("hi"));
    sim::udp_clear_sent();
    EXPECT_TRUE(sim::udp_sent().empty());
}

TEST_F(SimUdp, ReceiveCutsLongDatagramsAndFillsTheSender) {
    sim::udp_inject(ip("10.1.2.3"), bytes("early"));  // no socket yet: dropped
    EXPECT_EQ(sim::udp_pending(), 0u);
    const int fd = open_link_socket();
    std::array<uint8_t, 8> buf{};
    EXPECT_EQ(vk_os_recvfrom(fd, buf.data(), buf.size(), 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);

    sim::udp_inject(ip("10.1.2.3"), bytes("0123456789"), 4321);
    sim::udp_inject(ip("10.9.9.9"), bytes("next"));
    EXPECT_EQ(sim::udp_pending(), 2u);

    sockaddr_in from{};
    socklen_t fromlen = sizeof from;
    EXPECT_EQ(vk_os_recvfrom(fd, buf.data(), 4, 0, reinterpret_cast<sockaddr *>(&from), &fromlen), 4);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 4), "0123");
    EXPECT_EQ(buf[4], 0);  // nothing written past the given length
    EXPECT_EQ(fromlen, sizeof from);
    EXPECT_EQ(from.sin_family, AF_INET);
    EXPECT_EQ(from.sin_addr.s_addr, ip("10.1.2.3"));
    EXPECT_EQ(ntohs(from.sin_port), 4321);

    // The cut rest is gone: the next read is the next datagram, whole.
    EXPECT_EQ(sim::udp_pending(), 1u);
    fromlen = sizeof from;
    EXPECT_EQ(vk_os_recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&from), &fromlen), 4);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 4), "next");
    EXPECT_EQ(from.sin_addr.s_addr, ip("10.9.9.9"));
    EXPECT_EQ(ntohs(from.sin_port), kLinkPort);
    EXPECT_EQ(vk_os_recvfrom(fd, buf.data(), buf.size(), 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(SimUdp, InjectedDatagramsAreReadBeforeLaterTimeouts) {
    const int fd = open_link_socket();
    Reads r;
    ASSERT_EQ(vk_eloop_register_read_sock(fd, read_some, &r, nullptr), 0);
    vk_eloop_register_timeout(1, 0, note_timeout, &r, const_cast<char *>("timeout"));
    vk_eloop_register_timeout(2, 0, inject_reply, nullptr, nullptr);
    vk_eloop_register_timeout(2, 0, note_timeout, &r, const_cast<char *>("after reply"));
    sim::run_for(500 * kMs);
    sim::udp_inject(ip("10.0.0.1"), bytes("first"));
    sim::udp_inject(ip("10.0.0.1"), bytes("second"));
    EXPECT_TRUE(r.got.empty());  // read at the next settle/run, not at injection
    sim::run_for(5 * kSec);
    const std::vector<std::pair<uint64_t, std::string>> want = {
        {500 * kMs, "first"},
        {500 * kMs, "second"},
        {kSec, "timeout"},
        // Both timeouts due at 2 s run before the datagram the first of them
        // brought is read, as in the real loop: timeouts first at an instant.
        {2 * kSec, "after reply"},
        {2 * kSec, "reply"}};
    EXPECT_EQ(r.got, want);
    EXPECT_EQ(sim::udp_pending(), 0u);
}

TEST_F(SimUdp, ReadHandlerIsCalledOncePerPendingDatagram) {
    const int fd = open_link_socket();
    struct Case {
        const char *what;
        std::size_t per_call, calls, read;
    };
    for (const Case &c :
         {Case{"reads one per call", 1, 3, 3}, Case{"drains the socket", 8, 1, 3}, Case{"never reads", 0, 3, 0}}) {
        SCOPED_TRACE(c.what);
        Reads r;
        r.per_call = c.per_call;
        ASSERT_EQ(vk_eloop_register_read_sock(fd, read_some, &r, nullptr), 0);
        for (const char *d : {"a", "b", "c"}) sim::udp_inject(ip("10.0.0.1"), bytes(d));
        sim::settle();  // must return even when the handler never reads
        EXPECT_EQ(r.calls, c.calls);
        EXPECT_EQ(r.got.size(), c.read);
        vk_eloop_unregister_read_sock(fd);
        std::array<uint8_t, 4> buf{};
        while (vk_os_recvfrom(fd, buf.data(), buf.size(), 0, nullptr, nullptr) >= 0) {
        }
    }
}

TEST_F(SimUdp, OnlyRegisteredSocketsAreReadAndClosingUnregisters) {
    const int fd = open_link_socket();
    Reads r;
    EXPECT_EQ(vk_eloop_register_read_sock(fd + 50, read_some, &r, nullptr), -1);
    EXPECT_EQ(vk_eloop_register_read_sock(-1, read_some, &r, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(vk_eloop_register_read_sock(fd, read_some, &r, nullptr), 0);
    vk_eloop_unregister_read_sock(fd);
    sim::udp_inject(ip("10.0.0.1"), bytes("held"));
    sim::run_for(kSec);
    EXPECT_EQ(r.calls, 0u);
    EXPECT_EQ(sim::udp_pending(), 1u);

    // Registering again replaces the handler's contexts.
    Reads replaced;
    ASSERT_EQ(vk_eloop_register_read_sock(fd, read_some, &replaced, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_read_sock(fd, read_some, &r, nullptr), 0);
    sim::settle();
    EXPECT_EQ(replaced.calls, 0u);
    EXPECT_EQ(r.got, (std::vector<std::pair<uint64_t, std::string>>{{kSec, "held"}}));

    // The same number reopened is a new socket, not watched by the old handler.
    ASSERT_EQ(vk_os_close(fd), 0);
    EXPECT_FALSE(sim::udp_open());
    ASSERT_EQ(open_link_socket(), fd);
    sim::udp_inject(ip("10.0.0.1"), bytes("new"));
    sim::settle();
    EXPECT_EQ(r.calls, 1u);
    EXPECT_EQ(sim::udp_pending(), 1u);
}

void read_then_terminate(int fd, void *reads, void *) {
    read_some(fd, reads, nullptr);
    vk_eloop_terminate();
}

TEST_F(SimUdp, LoopRunReadsUntilTerminatedAndInitForgetsRegistrations) {
    const int fd = open_link_socket();
    Reads r;
    ASSERT_EQ(vk_eloop_register_read_sock(fd, read_then_terminate, &r, nullptr), 0);
    for (const char *d : {"a", "b"}) sim::udp_inject(ip("10.0.0.1"), bytes(d));
    vk_eloop_run();
    EXPECT_EQ(r.calls, 1u);
    EXPECT_EQ(sim::udp_pending(), 1u);
    vk_eloop_run();  // nothing else can happen after the last datagram
    EXPECT_EQ(r.calls, 2u);
    EXPECT_EQ(sim::udp_pending(), 0u);

    // A fresh loop watches nothing and has no timeouts; the socket stays open.
    vk_eloop_register_timeout(1, 0, note_timeout, &r, const_cast<char *>("forgotten"));
    ASSERT_EQ(vk_eloop_init(nullptr), 0);
    EXPECT_EQ(sim::pending_timeouts(), 0u);
    sim::udp_inject(ip("10.0.0.1"), bytes("c"));
    sim::run_for(2 * kSec);
    EXPECT_EQ(r.calls, 2u);
    EXPECT_EQ(sim::udp_pending(), 1u);
    EXPECT_TRUE(sim::udp_open());
}

}  // namespace
