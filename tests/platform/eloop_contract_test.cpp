// The event loop's contract against the real loop: epoll on the real clock,
// datagram socket pairs for the sockets.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "platform/eloop.h"

struct EloopWorld {
    std::array<int, 4> fd{-1, -1, -1, -1};  // a readable pair, a blocked pair
    EloopWorld() { EXPECT_EQ(vk_eloop_init(nullptr), 0); }
    ~EloopWorld() {
        for (int f : fd) close(f);  // -1 for a pair never made: refused, harmless
    }
    int readable() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, &fd[0]), 0);
        EXPECT_EQ(write(fd[1], "x", 1), 1);
        return fd[0];
    }
    void drain(int sock) {
        std::array<char, 2048> buf;
        while (read(sock, buf.data(), buf.size()) > 0) continue;
    }
    // Sends until its budget is used up: what waits at the peer is charged to it.
    int blocked() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, &fd[2]), 0);
        std::array<char, 1024> buf{};
        while (send(fd[2], buf.data(), buf.size(), MSG_DONTWAIT) >= 0) continue;
        return fd[2];
    }
    void unblock() { drain(fd[3]); }
};

#include "tests/contract/eloop_contract.h"
