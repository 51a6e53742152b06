#include "tools/tovrinctl/commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/ipc_codes.h"
#include "relay/app_msg.h"
#include "tools/tovrinctl/decode.h"
#include "tools/tovrinctl/encode.h"
#include "tools/tovrinctl/endpoints.h"
#include "tools/tovrinctl/ipc_io.h"
#include "tools/tovrinctl/stats_format.h"
#include "tools/tovrinctl/table.h"

namespace tovrinctl {

namespace {

using bytes_t = std::span<const uint8_t>;

// Messages received and payloads built: 16 KB each, kept off the stack.
vk_ipc_msg_t g_msg;
uint8_t g_payload[VK_IPC_PAYLOAD_MAX];

[[gnu::format(printf, 1, 2)]] void report(const char *fmt, ...) {
    std::fputs("tovrinctl: ", stderr);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

// A reader of a running listen sees each line at once.
void end_line() { std::fflush(stdout); }

struct temp_path_t {
    char s[VK_IPC_PATH_MAX];
};
temp_path_t temp_path() {
    temp_path_t p;
    std::snprintf(p.s, sizeof p.s, "/vk/ipc/tovrinctl-%ld", long(::getpid()));
    return p;
}

bytes_t payload_of(const vk_ipc_msg_t &m) { return {m.payload, m.len}; }

bool open_endpoint(ipc_endpoint &ep, std::string_view path, int32_t id = 0) {
    const int e = ep.open(path);
    if (e == 0) return true;
    if (e == EADDRINUSE && id != 0)
        report("endpoint %d (%s) is already bound by another process, e.g. a running 'listen'", int(id),
               ipc_full_path(path).s);
    else
        report("cannot open endpoint %s: %s", ipc_full_path(path).s, std::strerror(e));
    return false;
}

bool send_to_daemon(ipc_endpoint &ep, const options_t &o, uint32_t type, uint32_t flags, bytes_t payload) {
    const int e = ipc_send(ep, o.path, type, flags, payload);
    if (e == 0) return true;
    report("cannot reach %s: %s", ipc_full_path(o.path).s, std::strerror(e));
    return false;
}

void report_ignored(const vk_ipc_msg_t &m) {
    report("ignoring a message type=%u flags=0x%08x len=%u", m.type, m.flags, m.len);
}

void report_refused(const ipc_endpoint &ep) {
    report("dropped a malformed datagram on %s: %s", ep.full_path(), std::strerror(errno));
}

// Waits for the message that accept() takes, until the timeout of o; everything
// else is reported and skipped. false when none came (already reported).
template <typename Accept>
bool await(ipc_endpoint &ep, const options_t &o, vk_ipc_msg_t &m, Accept accept) {
    const int64_t deadline = now_ms() + o.timeout_ms;
    for (;;) {
        switch (ipc_wait(ep, m, deadline)) {
        case wait_t::message:
            if (accept(m)) return true;
            report_ignored(m);
            break;
        case wait_t::refused: report_refused(ep); break;
        case wait_t::timeout:
            report("no answer from %s within %u ms", ipc_full_path(o.path).s, o.timeout_ms);
            return false;
        case wait_t::interrupted: report("interrupted"); return false;
        case wait_t::error: report("cannot receive on %s: %s", ep.full_path(), std::strerror(errno)); return false;
        }
    }
}

// One request from ep; its response lands in resp.
bool request(ipc_endpoint &ep, const options_t &o, uint32_t code, bytes_t payload, vk_ipc_msg_t &resp) {
    if (!send_to_daemon(ep, o, code, VK_IPC_F_REQUEST, payload)) return false;
    return await(ep, o, resp,
                 [code](const vk_ipc_msg_t &m) { return (m.flags & VK_IPC_F_RESPONSE) && m.type == code; });
}

int notify(const options_t &o, uint32_t type, bytes_t payload) {
    ipc_endpoint ep;
    if (!open_endpoint(ep, temp_path().s)) return 1;
    return send_to_daemon(ep, o, type, VK_IPC_F_NOTIFY, payload) ? 0 : 1;
}

}  // namespace

int run_request(const options_t &o) {
    ipc_endpoint ep;
    if (!open_endpoint(ep, temp_path().s)) return 1;
    const uint32_t code = o.cmd == command_t::status    ? TOVRIN_IPC_GET_DRAV
                          : o.cmd == command_t::stats   ? TOVRIN_IPC_GET_STATS
                          : o.cmd == command_t::dump    ? TOVRIN_IPC_DUMP
                          : o.cmd == command_t::request ? o.code
                                                        : TOVRIN_IPC_GET_LOG_CFG;
    const bytes_t payload = o.cmd == command_t::request ? bytes_t(o.bytes, o.nbytes) : bytes_t();
    if (!request(ep, o, code, payload, g_msg)) return 1;
    const bytes_t got = payload_of(g_msg);

    if (o.cmd == command_t::request) {
        print_response(g_msg.type, g_msg.flags, got);
        return 0;
    }
    if (o.cmd == command_t::dump) return 0;
    if (o.cmd == command_t::stats) {
        char why[256];
        const auto c = decode_stats(got, why, sizeof why);
        if (!c) {
            report("%s", why);
            return 1;
        }
        if (o.format == format_t::json) print_stats_json(*c);
        else if (o.format == format_t::prometheus) print_stats_prometheus(*c);
        else print_stats_text(*c);
        return 0;
    }
    if (o.cmd == command_t::status) {
        if (!print_status(got, o.format == format_t::json)) {
            report("short answer to request 120: %zu bytes", got.size());
            return 1;
        }
        return 0;
    }
    auto words = decode_log_conf(got);
    if (!words) {
        report("short answer to request 28: %zu bytes", got.size());
        return 1;
    }
    if (o.cmd == command_t::log_set) {
        // The daemon installs words 2, 3 and 5 and ignores the rest, so the
        // others go back as they came.
        if (o.log_level) (*words)[2] = *o.log_level;
        if (o.log_echo) (*words)[3] = *o.log_echo;
        if (o.log_max) (*words)[5] = static_cast<int32_t>(*o.log_max);
        if (!send_to_daemon(ep, o, TOVRIN_IPC_SET_LOG_CFG, VK_IPC_F_NOTIFY, encode_log_conf(*words))) return 1;
    }
    print_log_conf(*words);
    return 0;
}

int run_listen(const options_t &o) {
    ipc_endpoint ep;
    if (!open_endpoint(ep, endpoint_path(o.endpoint), o.endpoint)) return 1;
    uint32_t seen = 0;
    auto next_deadline = [&o] { return o.wait_s ? now_ms() + int64_t(*o.wait_s) * 1000 : NO_DEADLINE; };
    int64_t deadline = next_deadline();
    for (;;) {
        switch (ipc_wait(ep, g_msg, deadline)) {
        case wait_t::message:
            print_endpoint_msg(g_msg.type, g_msg.flags, payload_of(g_msg));
            end_line();
            if (o.count && ++seen >= *o.count) return 0;
            deadline = next_deadline();
            break;
        case wait_t::refused: report_refused(ep); break;
        case wait_t::timeout: report("nothing received on %s within %u s", ep.full_path(), *o.wait_s); return 1;
        case wait_t::interrupted: return 0;
        case wait_t::error: report("cannot receive on %s: %s", ep.full_path(), std::strerror(errno)); return 1;
        }
    }
}

namespace {

// The data of a send: the literal, or up to one byte more than fits from the
// file (enough to refuse; a huge file is not read whole). Into data, which
// holds TOVRIN_APP_MAX_DATA + 1 bytes; false when the file cannot be read.
bool read_data(const options_t &o, uint8_t *data, std::size_t &n) {
    if (!o.data_from_file) {
        n = o.data.size() > TOVRIN_APP_MAX_DATA ? TOVRIN_APP_MAX_DATA + 1 : o.data.size();
        std::memcpy(data, o.data.data(), n);
        return true;
    }
    const int fd = ::open(o.data.data(), O_RDONLY | O_CLOEXEC);  // the name ends in NUL: the tail of an argv word
    if (fd < 0) {
        report("cannot read %s: %s", o.data.data(), std::strerror(errno));
        return false;
    }
    n = 0;
    while (n < TOVRIN_APP_MAX_DATA + 1) {
        const ssize_t got = ::read(fd, data + n, TOVRIN_APP_MAX_DATA + 1 - n);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            report("cannot read %s: %s", o.data.data(), std::strerror(errno));
            ::close(fd);
            return false;
        }
        if (got == 0) break;
        n += std::size_t(got);
    }
    ::close(fd);
    return true;
}

}  // namespace

int run_send(const options_t &o) {
    static uint8_t data[TOVRIN_APP_MAX_DATA + 1];
    std::size_t n = 0;
    if (!read_data(o, data, n)) return 1;
    if (n > TOVRIN_APP_MAX_DATA) {
        if (o.data_from_file)
            report("%s holds more than %zu bytes; at most %zu fit one message", o.data.data(), TOVRIN_APP_MAX_DATA,
                   TOVRIN_APP_MAX_DATA);
        else
            report("the data is %zu bytes; at most %zu fit one message", o.data.size(), TOVRIN_APP_MAX_DATA);
        return 1;
    }
    const uint32_t flags = (o.ack ? TOVRIN_MSG_F_ACK_REQ : 0) | (o.sync ? TOVRIN_MSG_F_SYNC : 0);
    const auto payload = encode_app_msg({o.from, o.name, o.id, flags, o.dst}, bytes_t(data, n), g_payload);
    if (!payload) {
        report("the message does not fit one IPC message");
        return 1;
    }
    if (!o.ack) return notify(o, TOVRIN_IPC_SEND_MSG, *payload);

    // The daemon answers at the table path of src_ep, whoever sent the message.
    ipc_endpoint ep;
    if (!open_endpoint(ep, endpoint_path(o.from), o.from)) return 1;
    if (!send_to_daemon(ep, o, TOVRIN_IPC_SEND_MSG, VK_IPC_F_NOTIFY, *payload)) return 1;
    const uint32_t want = o.sync ? VK_IPC_F_RESPONSE : VK_IPC_F_NOTIFY;
    const bool got = await(ep, o, g_msg, [&o, want](const vk_ipc_msg_t &a) {
        // Status reports and controller messages for this endpoint may arrive meanwhile.
        const auto h = decode_app_header(payload_of(a));
        return a.type == TOVRIN_IPC_APP_MSG && (a.flags & want) && h &&
               !(h->flags & (TOVRIN_MSG_F_STATUS | TOVRIN_MSG_F_FROM_CTRL)) && h->id == o.id && h->src_ep == o.from;
    });
    if (!got) return 1;
    const bool failed = decode_app_header(payload_of(g_msg))->flags & TOVRIN_MSG_F_FAILED;
    std::puts(failed ? "failed" : "delivered");
    return failed ? 1 : 0;
}

int run_key(const options_t &o) { return notify(o, TOVRIN_IPC_SET_KEY, encode_key(bytes_t(o.bytes, o.nbytes), g_payload)); }
int run_encrypt(const options_t &o) { return notify(o, TOVRIN_IPC_SET_ENCRYPT, encode_encrypt(o.state)); }
int run_controller(const options_t &o) { return notify(o, TOVRIN_IPC_CTRL_IP, o.addr); }
int run_karate(const options_t &o) { return notify(o, TOVRIN_IPC_KARATE, encode_karate(o.app_id, o.rate)); }
int run_notify(const options_t &o) { return notify(o, o.code, bytes_t(o.bytes, o.nbytes)); }

int run_command(const options_t &o) { return command_spec(o.cmd).run(o); }

}  // namespace tovrinctl
