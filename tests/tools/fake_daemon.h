#pragma once
// A stand-in for the daemon's IPC endpoint, serving in a thread of the test:
// it records what tovrinctl sends, answers the requests it was given answers
// for, and answers application messages that ask for an outcome at the
// endpoint-table path of their src_ep, as the daemon does.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/ipc.h"

namespace ctltest {

// An endpoint the test holds itself, to send from or to keep a path busy.
class test_endpoint {
public:
    explicit test_endpoint(std::string_view path);
    test_endpoint(const test_endpoint &) = delete;
    test_endpoint &operator=(const test_endpoint &) = delete;
    ~test_endpoint();
    bool is_open() const { return open_; }
    vk_ipc_handle_t *handle() { return &h_; }
    // 0 or -1 with errno, as vk_ipc_send_large / vk_ipc_resp_large.
    int send(std::string_view peer, uint32_t type, uint32_t flags, std::span<const uint8_t> payload);

private:
    vk_ipc_handle_t h_{};
    bool open_ = false;
};

struct received_t {
    uint32_t type = 0;
    uint32_t flags = 0;
    std::string sender;
    std::vector<uint8_t> payload;
};

// How application messages asking for their outcome are answered.
enum class outcome_t {
    delivered,   // the header back, unchanged
    failed,      // the header back with the failed flag
    wrong_kind,  // delivered, but as a response where a notification is due and the reverse
    none,        // no answer at all
};

class fake_daemon {
public:
    explicit fake_daemon(std::string_view path = "/vk/ipc/tovrin");
    fake_daemon(const fake_daemon &) = delete;
    fake_daemon &operator=(const fake_daemon &) = delete;
    ~fake_daemon();

    bool is_open() const { return ep_.is_open(); }
    // Requests with this code get this payload back; others get no response.
    void answer(uint32_t code, std::vector<uint8_t> payload);
    void set_outcome(outcome_t o);
    std::vector<received_t> received();
    // What has arrived once there are at least n messages, or at the timeout:
    // a notification may still be in the socket when tovrinctl has exited.
    std::vector<received_t> received(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5));

private:
    void serve();
    void answer_app_msg(const vk_ipc_msg_t &m);

    test_endpoint ep_;
    std::mutex mu_;
    std::condition_variable arrived_;
    std::map<uint32_t, std::vector<uint8_t>> answers_;
    outcome_t outcome_ = outcome_t::delivered;
    std::vector<received_t> received_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace ctltest
