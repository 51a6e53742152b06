#pragma once
// The simulated world's state, shared by the files of tests/sim only: tests use sim.h.
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/eloop.h"
#include "tests/sim/sim.h"

namespace sim {

// Fake descriptors: clear of real ones a test holds, below FD_SETSIZE.
inline constexpr int kFirstFd = 100, kLastFd = 1023;
inline constexpr uint16_t kLinkPort = 6650;
// A Unix datagram socket's send budget (wmem_default), charged per datagram with its
// bookkeeping until read, and net.unix.max_dgram_qlen (a receiver takes one more).
inline constexpr std::size_t kIpcSendBudget = 212992;
inline constexpr std::size_t kIpcDatagramOverhead = 576;
inline constexpr std::size_t kIpcDefaultQueueLen = 10;

// A datagram waiting to be read; seq keeps injection order across sockets.
struct Pending {
    uint64_t seq;
    std::vector<uint8_t> bytes;
    uint32_t ip = 0;      // UDP sender, network order
    uint16_t port = 0;    // UDP sender, host order
    std::string sender;   // IPC sender path
    int charged_to = -1;  // IPC: the sending socket whose budget it uses while it waits
};

struct Socket {
    bool ipc = false;    // else UDP
    uint16_t port = 0;   // UDP: bound port, 0 while unbound
    std::string path{};  // IPC: endpoint path; empty for a sending socket
    std::deque<Pending> input{};
    int owner = -1;  // IPC sending socket: of handle fd owner, connected to endpoint peer
    std::string peer{};
    std::size_t queue_len = kIpcDefaultQueueLen;
};

struct Timeout {
    uint64_t seq;
    vk_eloop_timeout_handler handler;
    void *ctx1, *ctx2;
};

struct SockReg {
    vk_eloop_sock_handler handler;
    void *ctx1, *ctx2;
};

struct SignalReg {
    vk_eloop_signal_handler handler;
    void *ctx;
};

struct World {
    uint64_t now_us = 0, next_seq = 0;  // next_seq orders both injections and timeout registrations
    bool terminate = false;
    std::multimap<uint64_t, Timeout> timeouts;  // by expiry, equal ones in registration order
    std::map<int, SockReg> read_socks, write_socks;
    std::map<int, Socket> sockets;
    std::map<int, SignalReg> signals;  // null handler: ignored
    std::set<int> raised;              // not yet handled

    std::vector<Datagram> udp_sent;
    int udp_fail_socket = 0, udp_fail_bind = 0;
    bool udp_burst_missing = false;

    std::vector<IpcSent> ipc_sent;
    std::map<std::string, bool> ipc_missing, ipc_full;  // by peer path
    int ipc_fail_open = 0;

    std::vector<SyslogLine> syslog;
    std::optional<std::string> mac = "0013a9c0ffee";
    std::string serial = "SN-TEST-0001";
    long uptime_s = 4242;  // at virtual time uptime_at_us, growing with the clock
    uint64_t uptime_at_us = 0;
    bool uptime_fail = false;
};

World &world();

inline int fail(int err) {
    errno = err;
    return -1;
}

int open_socket(Socket s);  // on the lowest free fake descriptor, as the kernel hands them out; -1 with errno
Socket *find_socket(int fd);
bool close_fd(int fd);                   // drops the socket and its registrations; false when not open
void push_input(Socket &s, Pending p);   // stamped with the next injection number
int ipc_fd_of(const std::string &path);  // the IPC endpoint at path, or -1
// Whether a send finds room now, as the kernel checks: the sender's budget not
// used up, the receiver's queue not past its length. writable(): UDP always,
// IPC when that holds and its peer is not set full.
bool has_room(int from, const std::string &peer);
bool writable(int fd);

}  // namespace sim
