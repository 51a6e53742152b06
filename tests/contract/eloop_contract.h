#pragma once
// The event loop's contract, one set of tests for both implementations. The
// file that includes this defines EloopWorld first: a fresh loop, a socket
// with one datagram waiting, and a sending socket that has no room until told.
//
//   struct EloopWorld {
//       EloopWorld();                  // vk_eloop_init done, nothing registered
//       int readable();                // a socket with one datagram to read
//       void drain(int sock);          // reads what waits on it
//       int blocked();                 // a sending socket with no room
//       void unblock();                // gives it room
//   };
//
// Delays are a few milliseconds, so the real loop runs them on the real clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/eloop.h"

namespace eloop_contract {

inline std::vector<std::string> fired;
inline EloopWorld *world = nullptr;

inline void record(void *, void *name) { fired.emplace_back(static_cast<const char *>(name)); }
inline void stop(void *, void *) { vk_eloop_terminate(); }
inline void on_readable(int sock, void *, void *) {
    fired.emplace_back("socket");
    world->drain(sock);
}
inline void on_writable(int sock, void *, void *) {
    fired.emplace_back("writable");
    vk_eloop_unregister_write_sock(sock);
}
inline void unblock(void *, void *) {
    fired.emplace_back("unblock");
    world->unblock();
}

class EloopContract : public ::testing::Test {
protected:
    EloopContract() { fired.clear(), world = &w; }
    ~EloopContract() override { world = nullptr; }
    static void run_ms(unsigned ms) {
        ASSERT_EQ(vk_eloop_register_timeout(0, ms * 1000, stop, nullptr, nullptr), 0);
        vk_eloop_run();
    }
    EloopWorld w;
};

TEST_F(EloopContract, TimeoutsDueRunBeforeSocketsReadyAtTheSameInstant) {
    const int sock = w.readable();
    ASSERT_EQ(vk_eloop_register_read_sock(sock, on_readable, nullptr, nullptr), 0);
    ASSERT_EQ(vk_eloop_register_timeout(0, 0, record, nullptr, const_cast<char *>("timeout")), 0);
    run_ms(20);
    EXPECT_EQ(fired, (std::vector<std::string>{"timeout", "socket"}));
}

TEST_F(EloopContract, ReadAndWriteWatchesOfOneSocketAreIndependent) {
    const int sock = w.blocked();
    ASSERT_EQ(vk_eloop_register_write_sock(sock, on_writable, nullptr, nullptr), 0);
    const int other = w.readable();
    ASSERT_EQ(vk_eloop_register_read_sock(other, on_readable, nullptr, nullptr), 0);
    vk_eloop_unregister_read_sock(sock);  // never registered for reading: changes nothing
    ASSERT_EQ(vk_eloop_register_timeout(0, 5000, unblock, nullptr, nullptr), 0);
    run_ms(30);
    // The write watch waits for room, then on_writable removed it: room that stays is not reported again.
    EXPECT_EQ(fired, (std::vector<std::string>{"socket", "unblock", "writable"}));
}

}  // namespace eloop_contract
