#pragma once
// The simulated platform: a virtual clock, in-memory UDP and IPC, captured
// syslog, fixed node information. Linked into test binaries in place of
// platform/linux, so every timer of the daemon runs in virtual time.
#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/eloop.h"

namespace sim {

// Everything back to its start: clock 0, nothing open, pending or captured,
// the defaults below, no failures armed.
void reset();
uint64_t now_us();  // virtual time since reset()
// Runs the world for us microseconds: handles every readable socket (UDP and
// IPC, in injection order) and every timeout due, in time order, advancing the
// clock to each timeout's expiry; ends with the clock at start + us.
void run_for(uint64_t us);
inline void run_for_ms(uint64_t ms) { run_for(ms * 1000); }
inline void settle() { run_for(0); }  // what is due now, the clock standing still
// Sends sig to the daemon: handled at the next settle()/run_for() or round of
// vk_eloop_run, before readable sockets, as the real loop reads its signal
// pipe. SIGTERM and SIGINT end vk_eloop_run; a signal nobody took is lost.
void raise_signal(int sig);
// Pending timeouts, in all or of one handler; when the next of h is due.
std::size_t pending_timeouts();
std::size_t pending_timeouts(vk_eloop_timeout_handler h);
std::optional<uint64_t> next_timeout_of(vk_eloop_timeout_handler h);

// ---- UDP ----
struct Datagram {
    uint64_t at_us;  // virtual time of the send
    uint32_t ip;     // destination (sent) or source (injected), network order
    uint16_t port;   // host order
    std::vector<uint8_t> bytes;
};
const std::vector<Datagram> &udp_sent();  // oldest first
void udp_clear_sent();
// Queues a datagram for the daemon's UDP socket (the one bound to 6650). It is
// read at the next settle()/run_for(). Dropped when no such socket is open.
void udp_inject(uint32_t from_ip_net, std::vector<uint8_t> bytes, uint16_t from_port = 6650);
bool udp_open();
uint16_t udp_bound_port();  // 0 if none is bound
// Makes the next socket() or bind() fail with err (0 disarms).
void udp_fail_socket(int err);
void udp_fail_bind(int err);
// Makes sendmmsg and recvmmsg answer ENOSYS, as a kernel without them does.
void udp_burst_missing(bool missing);

// ---- IPC ----
struct IpcSent {
    uint64_t at_us;
    uint32_t kind;     // VK_IPC_KIND_NOTIFY or VK_IPC_KIND_RESP
    std::string peer;  // destination endpoint path
    uint32_t type, len, flags;
    std::vector<uint8_t> payload;  // len bytes
    bool delivered;                // false when refused
    bool full;                     // refused with EAGAIN: the peer's queue or the sender's budget was full
    bool held_by_other;            // refused for a budget that datagrams waiting at other receivers use
};
// Sent by any handle (daemon, sysmon calls), oldest first.
const std::vector<IpcSent> &ipc_sent();
void ipc_clear_sent();
// Queues an envelope (length word = payload size) for the endpoint at path
// (default the daemon's), from sender path.
void ipc_inject(uint32_t type, uint32_t flags, std::span<const uint8_t> payload,
                const std::string &sender = "/vk/ipc/test", const std::string &to = "/vk/ipc/tovrin");
// Queues raw datagram bytes, whatever they hold (malformed envelopes included).
void ipc_inject_raw(std::vector<uint8_t> bytes, const std::string &sender = "/vk/ipc/test",
                    const std::string &to = "/vk/ipc/tovrin");
// Sends to path fail with ENOENT while missing (recorded with delivered=false).
void ipc_set_missing(const std::string &path, bool missing);
// Sends to path fail with EAGAIN while full, as when the endpoint's queue is
// (recorded with delivered=false), and sockets sending to it are not writable.
void ipc_set_full(const std::string &path, bool full);
// The queue length of the endpoint open at path (net.unix.max_dgram_qlen
// when it was made; default kernel's 10).
void ipc_set_queue_len(const std::string &path, std::size_t len);
void ipc_fail_open(int err);  // the next vk_ipc_open (0 disarms)

// ---- syslog ----
struct SyslogLine {
    uint64_t at_us;
    int priority;
    std::string text;
};
const std::vector<SyslogLine> &syslog_lines();

// ---- node, clock and uptime ----
// Handed out by vk_get_node_vap_mac (default "0013a9c0ffee"; nullopt: it
// fails) and vk_get_node_serial_num (default "SN-TEST-0001").
void node_set_mac(std::optional<std::string> text);
void node_set_serial(const std::string &serial);
// Uptime reported by sysinfo (default 4242 s; failing when fail is true).
// time() and ftime() report 1700000000 s plus the virtual clock.
void set_uptime(long seconds, bool fail = false);

}  // namespace sim
