#include "harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/ipc_codes.h"
#include "ipc_payloads.h"
#include "core/reset.h"
#include "core/startup.h"
#include "link/cipher.h"
#include "link/protect.h"
#include "link/send_queue.h"
#include "platform/eloop.h"
#include "platform/log.h"
#include "relay/backlog.h"
#include "relay/endpoints.h"
#include "relay/relay.h"

namespace fz {

namespace {
uint32_t ip_of(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t o[4] = {a, b, c, d};
    uint32_t ip;
    std::memcpy(&ip, o, 4);
    return ip;
}

// Opened once for the process: verbose inputs format every line into it. A
// memory stream, since the log flushes every line and a file would cost a
// system call each time; the log rewinds it at its maximum size.
FILE *null_stream() {
    static char buf[2 * VK_LOG_DEFAULT_MAXSIZE];
    static FILE *f = fmemopen(buf, sizeof buf, "w");
    return f;
}
}  // namespace

uint32_t ctrl_ip() { return ip_of(198, 18, 0, 1); }
uint32_t other_ip() { return ip_of(198, 18, 0, 9); }

std::vector<uint8_t> Input::bytes(std::size_t n) {
    n = std::min(n, left());
    std::vector<uint8_t> out(p_ + pos_, p_ + pos_ + n);
    pos_ += n;
    return out;
}

std::vector<uint8_t> Input::chunk(std::size_t max) { return bytes(std::min<std::size_t>(u16(), max)); }

void fail(const char *what, const char *file, int line) {
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

void begin(bool verbose) {
    sim::reset();
    tovrin_reset_state();
    vk_log_conf_data[VK_LOG_W_LEVEL] = verbose ? 4 : 0;
    log_file_name = verbose ? null_stream() : nullptr;
    if (log_file_name != nullptr) std::rewind(log_file_name);
    vk_eloop_init(nullptr);
    tovrin_start(nullptr);
    sim::settle();
}

void check_state() {
    const tovrin_comm_t &c = tovrin_gbl.comm;
    FZ_CHECK(c.rx_len >= 0 && c.rx_len <= static_cast<int32_t>(TOVRIN_MAX_PAYLOAD));
    FZ_CHECK(c.ack_wait == 0 || c.ack_wait == 1);
    if (c.tail == nullptr) {  // never opened: the queue was never set up
        FZ_CHECK(c.head == nullptr && c.msg_cnt == 0);
        return;
    }
    int32_t n = 0;
    tovrin_msg_t *const *link = &c.head;
    for (const tovrin_msg_t *m = c.head; m != nullptr; m = m->next) {
        FZ_CHECK(m->prev == link);
        FZ_CHECK(m->data_len > 0 && m->data_len <= static_cast<int32_t>(TOVRIN_MAX_PAYLOAD));
        link = &m->next;
        ++n;
        FZ_CHECK(n <= tovrin_send_queue_max);
    }
    FZ_CHECK(c.tail == link);
    FZ_CHECK(n == c.msg_cnt);
    // A message waits on the wire only with its retry timer armed.
    FZ_CHECK(c.ack_wait == 0 || c.head != nullptr);
    FZ_CHECK((sim::pending_timeouts(tovrin_msg_retry) != 0) == (c.ack_wait == 1));
    // Messages are queued only while the link is up; going down empties the queue.
    if (tovrin_gbl.status == 0) FZ_CHECK(c.head == nullptr);
    FZ_CHECK(tovrin_backlog_count() <= TOVRIN_BACKLOG_MAX_MSGS);
}

void end() {
    check_state();
    tovrin_reset_state();
    sim::reset();
}

void quiet_echo() { vk_log_conf_data[VK_LOG_W_ECHO] = 0; }

void notify(uint32_t type, const std::vector<uint8_t> &payload) {
    sim::ipc_inject(type, VK_IPC_F_NOTIFY, payload);
    sim::settle();
}

void set_controller(uint32_t ip) { notify(TOVRIN_IPC_CTRL_IP, word_payload(ip)); }

void from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src) {
    sim::udp_inject(src, dgram);
    sim::settle();
}

bool bring_up() {
    set_controller(ctrl_ip());
    from_ctrl(ctrl_packet(TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN, TOVRIN_REG_LEN));
    return tovrin_gbl.status == 1;
}

void set_key(const std::vector<uint8_t> &key) { notify(TOVRIN_IPC_SET_KEY, key_payload(key)); }

void set_encrypt(int32_t state) { notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(static_cast<uint32_t>(state))); }

void app_send(int32_t src, int32_t dst, uint32_t flags, uint32_t id, const std::vector<uint8_t> &data) {
    notify(TOVRIN_IPC_SEND_MSG, app_payload(app_header(src, "fuzzer", id, flags, dst, data.size()), data));
}

std::string endpoint_path(int32_t id) {
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(id);
    return ep != nullptr ? ep->path : "";
}

}  // namespace fz
