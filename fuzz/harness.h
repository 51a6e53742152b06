#pragma once
// Shared by the fuzz targets: the daemon on the simulated platform, started
// afresh for every input, a reader of the fuzzer's bytes, the checks that turn
// a wrong state into a crash the fuzzer reports, and the receiving side's
// rules for a reassembled payload. Nothing here depends on a test framework.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/ipc_codes.h"
#include "core/reset.h"
#include "core/startup.h"
#include "ipc_payloads.h"
#include "link/send_queue.h"
#include "link/wire.h"
#include "packets.h"
#include "platform/eloop.h"
#include "platform/log.h"
#include "relay/backlog.h"
#include "relay/endpoints.h"
#include "relay/relay.h"
#include "sim.h"

namespace fz {

// 198.18.0.1, network order.
inline uint32_t ctrl_ip() { return htonl(0xc6120001); }

// Reads the fuzzer's bytes front to back; past the end every read gives 0.
class Input {
public:
    Input(const uint8_t *data, std::size_t size) : p_(data), n_(size) {}
    bool empty() const { return pos_ >= n_; }
    uint8_t u8() { return empty() ? 0 : p_[pos_++]; }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    // Up to n bytes (fewer at the end).
    std::vector<uint8_t> bytes(std::size_t n) {
        n = std::min(n, n_ - std::min(pos_, n_));
        pos_ += n;
        return {p_ + pos_ - n, p_ + pos_};
    }
    // A length-prefixed chunk: 16-bit length, cut to max, then that many bytes.
    std::vector<uint8_t> chunk(std::size_t max) { return bytes(std::min<std::size_t>(u16(), max)); }

private:
    const uint8_t *p_;
    std::size_t n_, pos_ = 0;
};

// A broken expectation. Uncaught in a fuzz target it ends the process, a crash
// whose input the fuzzer keeps; the simulation catches it and names the seed.
#define FZ_CHECK(cond)                                      \
    do {                                                    \
        if (!(cond)) ::fz::fail(#cond, __FILE__, __LINE__); \
    } while (0)

[[noreturn]] inline void fail(const char *what, const char *file, int line) {
    throw std::runtime_error(std::string(file) + ":" + std::to_string(line) + ": check failed: " + what);
}

// A message for a local endpoint, as the receiving side must hand it on.
struct Delivery {
    int32_t src, dst;
    std::vector<uint8_t> data;
};

// Resets the world and starts the daemon as at process start. With log, every
// log statement runs at level 4 into a memory stream (log lines format values
// taken from the input; the log flushes every line, and a file would cost a
// system call each time); otherwise logging is off for speed.
inline void start(bool log) {
    static char buf[2 * VK_LOG_DEFAULT_MAXSIZE];
    static FILE *const stream = fmemopen(buf, sizeof buf, "w");
    sim::reset();
    tovrin_reset_state();
    vk_log_conf_data[VK_LOG_W_LEVEL] = log ? 4 : 0;
    log_file_name = log ? stream : nullptr;
    if (log) std::rewind(stream);
    vk_eloop_init(nullptr);
    tovrin_start(nullptr);
    sim::settle();
}

// fz::start for an input, logging when bit 7 of its mode byte, which it returns, is set.
inline uint8_t begin(Input &in) {
    const uint8_t mode = in.u8();
    start(mode & 0x80);
    return mode;
}

// The send queue's links agree with msg_cnt; reassembly length in range.
inline void check_state() {
    const tovrin_comm_t &c = tovrin_gbl.comm;
    FZ_CHECK(c.rx_len >= 0 && c.rx_len <= static_cast<int32_t>(TOVRIN_MAX_PAYLOAD));
    FZ_CHECK(c.ack_wait == 0 || c.ack_wait == 1);
    if (c.tail == nullptr) {  // never opened: the queue was never set up
        FZ_CHECK(c.head == nullptr && c.msg_cnt == 0);
        return;
    }
    int32_t n = 0;
    tovrin_msg_t *const *link = &c.head;
    for (const tovrin_msg_t *m = c.head; m != nullptr; m = m->next, ++n) {
        FZ_CHECK(m->prev == link && n < tovrin_send_queue_max);
        FZ_CHECK(m->data_len > 0 && m->data_len <= static_cast<int32_t>(TOVRIN_MAX_PAYLOAD));
        link = &m->next;
    }
    FZ_CHECK(c.tail == link && n == c.msg_cnt);
    // A message waits on the wire only with its retry timer armed.
    FZ_CHECK(c.ack_wait == 0 || c.head != nullptr);
    FZ_CHECK((sim::pending_timeouts(tovrin_msg_retry) != 0) == (c.ack_wait == 1));
    // Messages are queued only while the link is up; going down empties the queue.
    FZ_CHECK(tovrin_gbl.status != 0 || c.head == nullptr);
    FZ_CHECK(tovrin_backlog_count() <= TOVRIN_BACKLOG_MAX_MSGS);
}

// Checks the queue, frees what is still queued on the queue's own path and
// leaves nothing allocated, so the leak checker sees only real leaks.
inline void end() {
    check_state();
    tovrin_reset_state();
    sim::reset();
}

inline void notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from = "/vk/ipc/test") {
    sim::ipc_inject(type, VK_IPC_F_NOTIFY, payload, from);
    sim::settle();
}

inline void set_controller(uint32_t ip) { notify(TOVRIN_IPC_CTRL_IP, word_payload(ip)); }

inline void from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src = ctrl_ip()) {
    sim::udp_inject(src, dgram);
    sim::settle();
}

// Controller address and registration answered; the link must be up.
inline void bring_up() {
    set_controller(ctrl_ip());
    // The corpus was made with control packets framed 0xa0.
    from_ctrl(ctrl_packet(TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN, TOVRIN_REG_LEN, TOVRIN_F_CTRL | TOVRIN_F_DATA));
    FZ_CHECK(tovrin_gbl.status == 1);
}

inline void set_key(const std::vector<uint8_t> &key) { notify(TOVRIN_IPC_SET_KEY, key_payload(key)); }

inline void app_send(int32_t src, int32_t dst, uint32_t flags, uint32_t id, const std::vector<uint8_t> &data) {
    notify(TOVRIN_IPC_SEND_MSG, app_payload(app_header(src, "fuzzer", id, flags, dst, data.size()), data));
}

inline std::string endpoint_path(int32_t id) {
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(id);
    return ep != nullptr ? ep->path : "";
}

// A plain payload ('!', length field equal to its size) opened; nullopt for anything else.
inline std::optional<Delivery> open_plain(const std::vector<uint8_t> &p) {
    if (p.size() < TOVRIN_PLAIN_HDR_LEN || p[0] != TOVRIN_DATA_PLAIN || tovrin_load16(&p[2]) != p.size())
        return std::nullopt;
    return Delivery{static_cast<int32_t>(tovrin_load32(&p[4])), static_cast<int32_t>(tovrin_load32(&p[8])),
                    std::vector<uint8_t>(p.begin() + TOVRIN_PLAIN_HDR_LEN, p.end())};
}

// Whether an opened message is delivered: to a table endpoint, and fitting one IPC message.
inline bool deliverable(const Delivery &m) {
    return !endpoint_path(m.dst).empty() && m.data.size() <= TOVRIN_APP_MAX_DATA;
}

// The daemon's IPC message s is exactly the delivery m under id.
inline void check_delivery(const sim::IpcSent &s, const Delivery &m, uint32_t id) {
    FZ_CHECK(s.type == TOVRIN_IPC_APP_MSG && s.peer == endpoint_path(m.dst));
    FZ_CHECK(s.payload.size() == TOVRIN_APP_HDR_LEN + m.data.size());
    tovrin_app_msg_t h;
    std::memcpy(&h, s.payload.data(), TOVRIN_APP_HDR_LEN);
    FZ_CHECK(h.src_ep == m.src && h.dst_ep == m.dst && h.len == m.data.size());
    FZ_CHECK(h.flags == TOVRIN_MSG_F_FROM_CTRL && h.id == id);
    FZ_CHECK(std::equal(m.data.begin(), m.data.end(), s.payload.begin() + TOVRIN_APP_HDR_LEN));
}

}  // namespace fz
