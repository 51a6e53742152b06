#include "tools/tovrinctl/commands.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

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

void report(const std::string &what) { std::fprintf(stderr, "tovrinctl: %s\n", what.c_str()); }

void print_line(const std::string &line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);  // a reader of a running listen sees each line at once
}

std::string temp_path() { return "/vk/ipc/tovrinctl-" + std::to_string(::getpid()); }

bytes_t payload_of(const vk_ipc_msg_t &m) { return {m.payload, m.len}; }

bool open_endpoint(ipc_endpoint &ep, std::string_view path, int32_t id = 0) {
    const int e = ep.open(path);
    if (e == 0) return true;
    if (e == EADDRINUSE && id != 0)
        report("endpoint " + std::to_string(id) + " (" + ipc_full_path(path) +
               ") is already bound by another process, e.g. a running 'listen'");
    else
        report("cannot open endpoint " + ipc_full_path(path) + ": " + std::strerror(e));
    return false;
}

bool send_to_daemon(ipc_endpoint &ep, const options_t &o, uint32_t type, uint32_t flags, bytes_t payload) {
    const int e = ipc_send(ep, o.path, type, flags, payload);
    if (e == 0) return true;
    report("cannot reach " + ipc_full_path(o.path) + ": " + std::strerror(e));
    return false;
}

void report_ignored(const vk_ipc_msg_t &m) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "ignoring a message type=%u flags=0x%08x len=%u", m.type, m.flags, m.len);
    report(buf);
}

void report_refused(const ipc_endpoint &ep) {
    report("dropped a malformed datagram on " + ep.full_path() + ": " + std::strerror(errno));
}

// Waits for the message that accept() takes, until the timeout of o; everything
// else is reported and skipped. false when none came (already reported).
template <typename Accept>
bool await(ipc_endpoint &ep, const options_t &o, vk_ipc_msg_t &m, Accept accept) {
    const auto deadline = wait_clock::now() + std::chrono::milliseconds(o.timeout_ms);
    for (;;) {
        switch (ipc_wait(ep, m, deadline)) {
        case wait_t::message:
            if (accept(m)) return true;
            report_ignored(m);
            break;
        case wait_t::refused: report_refused(ep); break;
        case wait_t::timeout:
            report("no answer from " + ipc_full_path(o.path) + " within " + std::to_string(o.timeout_ms) + " ms");
            return false;
        case wait_t::interrupted: report("interrupted"); return false;
        case wait_t::error: report("cannot receive on " + ep.full_path() + ": " + std::strerror(errno)); return false;
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
    if (!open_endpoint(ep, temp_path())) return 1;
    return send_to_daemon(ep, o, type, VK_IPC_F_NOTIFY, payload) ? 0 : 1;
}

}  // namespace

int run_request(const options_t &o) {
    ipc_endpoint ep;
    auto resp = std::make_unique<vk_ipc_msg_t>();
    if (!open_endpoint(ep, temp_path())) return 1;
    const uint32_t code = o.cmd == command_t::status    ? TOVRIN_IPC_GET_DRAV
                          : o.cmd == command_t::stats   ? TOVRIN_IPC_GET_STATS
                          : o.cmd == command_t::dump    ? TOVRIN_IPC_DUMP
                          : o.cmd == command_t::request ? o.code
                                                        : TOVRIN_IPC_GET_LOG_CFG;
    const bytes_t payload = o.cmd == command_t::request ? bytes_t(o.bytes) : bytes_t();
    if (!request(ep, o, code, payload, *resp)) return 1;
    const bytes_t got = payload_of(*resp);

    if (o.cmd == command_t::request) {
        print_line(format_response(resp->type, resp->flags, got));
        return 0;
    }
    if (o.cmd == command_t::dump) return 0;
    if (o.cmd == command_t::stats) {
        std::string why;
        const auto c = decode_stats(got, why);
        if (!c) {
            report(why);
            return 1;
        }
        std::fputs((o.format == format_t::json         ? format_stats_json(*c)
                    : o.format == format_t::prometheus ? format_stats_prometheus(*c)
                                                       : format_stats_text(*c))
                       .c_str(),
                   stdout);
        return 0;
    }
    if (o.cmd == command_t::status) {
        auto line = o.format == format_t::json ? format_status_json(got) : format_status(got);
        if (!line) {
            report("short answer to request 120: " + std::to_string(got.size()) + " bytes");
            return 1;
        }
        print_line(*line);
        return 0;
    }
    auto words = decode_log_conf(got);
    if (!words) {
        report("short answer to request 28: " + std::to_string(got.size()) + " bytes");
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
    print_line(format_log_conf(*words));
    return 0;
}

int run_listen(const options_t &o) {
    ipc_endpoint ep;
    if (!open_endpoint(ep, endpoint_path(o.endpoint), o.endpoint)) return 1;
    auto m = std::make_unique<vk_ipc_msg_t>();
    uint32_t seen = 0;
    auto next_deadline = [&o]() -> std::optional<wait_clock::time_point> {
        if (!o.wait_s) return std::nullopt;
        return wait_clock::now() + std::chrono::seconds(*o.wait_s);
    };
    auto deadline = next_deadline();
    for (;;) {
        switch (ipc_wait(ep, *m, deadline)) {
        case wait_t::message:
            print_line(format_endpoint_msg(m->type, m->flags, payload_of(*m)));
            if (o.count && ++seen >= *o.count) return 0;
            deadline = next_deadline();
            break;
        case wait_t::refused: report_refused(ep); break;
        case wait_t::timeout:
            report("nothing received on " + ep.full_path() + " within " + std::to_string(*o.wait_s) + " s");
            return 1;
        case wait_t::interrupted: return 0;
        case wait_t::error: report("cannot receive on " + ep.full_path() + ": " + std::strerror(errno)); return 1;
        }
    }
}

namespace {

bool read_data(const options_t &o, std::vector<uint8_t> &data) {
    if (!o.data_from_file) {
        data.assign(o.data.begin(), o.data.end());
        return true;
    }
    std::ifstream in(o.data, std::ios::binary);
    if (!in) {
        report("cannot read " + o.data + ": " + std::strerror(errno));
        return false;
    }
    // One byte more than fits is enough to refuse; a huge file is not read whole.
    data.resize(TOVRIN_APP_MAX_DATA + 1);
    in.read(reinterpret_cast<char *>(data.data()), static_cast<std::streamsize>(data.size()));
    if (in.bad()) {
        report("cannot read " + o.data);
        return false;
    }
    data.resize(static_cast<std::size_t>(in.gcount()));
    return true;
}

}  // namespace

int run_send(const options_t &o) {
    std::vector<uint8_t> data;
    if (!read_data(o, data)) return 1;
    if (data.size() > TOVRIN_APP_MAX_DATA) {
        const std::string max = std::to_string(TOVRIN_APP_MAX_DATA);
        report((o.data_from_file ? o.data + " holds more than " + max : "the data is " + std::to_string(data.size())) +
               " bytes; at most " + max + " fit one message");
        return 1;
    }
    const uint32_t flags = (o.ack ? TOVRIN_MSG_F_ACK_REQ : 0) | (o.sync ? TOVRIN_MSG_F_SYNC : 0);
    auto payload = encode_app_msg({o.from, o.name, o.id, flags, o.dst}, data);
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
    auto m = std::make_unique<vk_ipc_msg_t>();
    const bool got = await(ep, o, *m, [&o, want](const vk_ipc_msg_t &a) {
        // Status reports and controller messages for this endpoint may arrive meanwhile.
        auto h = decode_app_header(payload_of(a));
        return a.type == TOVRIN_IPC_APP_MSG && (a.flags & want) && h &&
               !(h->flags & (TOVRIN_MSG_F_STATUS | TOVRIN_MSG_F_FROM_CTRL)) && h->id == o.id && h->src_ep == o.from;
    });
    if (!got) return 1;
    const bool failed = decode_app_header(payload_of(*m))->flags & TOVRIN_MSG_F_FAILED;
    print_line(failed ? "failed" : "delivered");
    return failed ? 1 : 0;
}

int run_key(const options_t &o) { return notify(o, TOVRIN_IPC_SET_KEY, encode_key(o.bytes)); }
int run_encrypt(const options_t &o) { return notify(o, TOVRIN_IPC_SET_ENCRYPT, encode_encrypt(o.state)); }
int run_controller(const options_t &o) { return notify(o, TOVRIN_IPC_CTRL_IP, o.addr); }
int run_karate(const options_t &o) { return notify(o, TOVRIN_IPC_KARATE, encode_karate(o.app_id, o.rate)); }
int run_notify(const options_t &o) { return notify(o, o.code, o.bytes); }

int run_command(const options_t &o) { return command_spec(o.cmd).run(o); }

}  // namespace tovrinctl
