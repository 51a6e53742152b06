#pragma once
// The daemon in a small simulated world: the controller at kCtrl, local
// endpoints reached through the simulated IPC, time advanced by the test.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "link/record.h"
#include "link/wire.h"
#include "relay/app_msg.h"
#include "ipc_payloads.h"
#include "packets.h"
#include "sim.h"

inline const uint32_t kCtrl = inet_addr("198.18.0.1");
inline const uint32_t kOther = inet_addr("198.18.0.9");

inline constexpr uint64_t kSec = 1000000;
inline constexpr uint64_t kMs = 1000;
// Whole seconds as virtual times.
inline std::vector<uint64_t> secs(std::initializer_list<uint64_t> s) {
    std::vector<uint64_t> v;
    for (uint64_t x : s) v.push_back(x * kSec);
    return v;
}

// printf into a string, for expected log lines.
std::string strf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string hex(const std::vector<uint8_t> &bytes);  // lower case, no separators
std::vector<uint8_t> unhex(const std::string &text);

// Decoded view of an IPC application message (type 123) sent by the daemon.
struct AppSeen {
    std::string peer;
    uint32_t envelope_flags;
    uint32_t kind;
    tovrin_app_msg_t hdr;
    std::vector<uint8_t> data;
};
AppSeen decode_app(const sim::IpcSent &m);
// n data bytes that differ from their neighbours, so a misplaced byte shows.
std::vector<uint8_t> pattern(std::size_t n);

class World : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A notification / request to the daemon, handled at once.
    void notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from = "/vk/ipc/test");
    void request(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from = "/vk/ipc/test");
    // Notification 149 with addr.
    void set_controller(uint32_t addr = kCtrl);
    // A datagram from the controller (or another address), handled at once.
    void from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src = kCtrl);
    // Controller address set and registration answered: the link is UP.
    void bring_up(uint32_t addr = kCtrl);
    // A local application message for the controller.
    void app_send(int32_t src, int32_t dst, uint32_t flags, const std::vector<uint8_t> &data);
    // A local application message whose header is given whole: its len may disagree with data.
    void app_send_hdr(const tovrin_app_msg_t &h, const std::vector<uint8_t> &data);
    void set_key(const std::vector<uint8_t> &key);
    // Notification 121: keepalive rate for an application.
    void karate(int32_t app, uint32_t rate);
    void set_level(int level);
    // Runs the world while the controller answers every keepalive at once.
    void run_answering(uint64_t us);
    // Datagrams of data messages sent since the last clear: no control packets, no acks.
    std::vector<sim::Datagram> data_sent() const;
    // The link record's bytes: equal before and after means nothing in it changed.
    static std::vector<uint8_t> link_bytes();

    // Datagrams sent since the last clear.
    std::vector<sim::Datagram> sent() const { return sim::udp_sent(); }
    std::vector<sim::Datagram> sent_with_payload_type(uint8_t ctrl_type) const;
    // Virtual times of the sent datagrams whose control type is ctrl_type.
    std::vector<uint64_t> times_of(uint8_t ctrl_type) const;
    // Application messages the daemon sent over IPC, decoded.
    std::vector<AppSeen> app_msgs() const;
    std::vector<AppSeen> app_msgs_to(const std::string &peer) const;
    // The log file's text so far, whether it contains s, a mark of its end, the text after one.
    std::string log_text() const;
    bool logged(const std::string &s) const { return log_text().find(s) != std::string::npos; }
    int log_count(const std::string &s) const;
    std::size_t log_mark() const { return log_text().size(); }
    std::string log_since(std::size_t mark) const;
    void clear_captures();

    std::string log_dir_;
};
