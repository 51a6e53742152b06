#pragma once
// Command line of tovrinctl: argv words -> one command with its operands.
// Pure: reads no files and touches no sockets, so every refusal is testable.
//
// tovrinctl is written under the daemon's rules (no exceptions, RTTI, heap or
// C++ runtime: fixed buffers, the C library's stdio), so on a device it needs
// the C library and nothing else. Text the user typed is quoted in error lines
// as far as they reach (a line stops at ERROR_MAX bytes).
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/ipc.h"
#include "relay/app_msg.h"

namespace tovrinctl {

enum class command_t {
    status,
    log_get,
    log_set,
    dump,
    key,
    encrypt,
    notify,
    request,
    controller,
    karate,
    listen,
    send,
    stats
};

// How status and stats print: for people, one JSON object, or the Prometheus
// text exposition.
enum class format_t { text, json, prometheus };

inline constexpr uint32_t DEFAULT_TIMEOUT_MS = 2000;
inline constexpr int32_t DEFAULT_FROM_EP = 101;
inline constexpr std::size_t ERROR_MAX = 512;

struct options_t {
    command_t cmd = command_t::status;
    uint32_t timeout_ms = DEFAULT_TIMEOUT_MS;  // requests and answers
    char path[VK_IPC_PATH_MAX] = "/vk/ipc/tovrin";  // daemon endpoint
    char warning[ERROR_MAX] = "";  // printed to stderr, the command still runs

    format_t format = format_t::text;  // status (text, json), stats

    uint32_t code = 0;                       // notify, request
    uint8_t bytes[VK_IPC_PAYLOAD_MAX] = {};  // key bytes; notify/request payload
    std::size_t nbytes = 0;
    int32_t state = 0;              // encrypt
    std::array<uint8_t, 4> addr{};  // controller, network order
    int32_t app_id = 0;             // karate
    uint32_t rate = 0;              // karate

    std::optional<int32_t> log_level;  // log set: words to change
    std::optional<int32_t> log_echo;
    std::optional<uint32_t> log_max;

    int32_t endpoint = 0;            // listen
    std::optional<uint32_t> count;   // listen: stop after this many messages
    std::optional<uint32_t> wait_s;  // listen: give up after this many idle seconds

    int32_t dst = 0;  // send
    int32_t from = DEFAULT_FROM_EP;
    char name[TOVRIN_APP_NAME_LEN] = "tovrinctl";
    uint32_t id = 0;
    bool ack = false;
    bool sync = false;
    // Literal data, or the file name after '@': the tail of an argv string,
    // so a file name ends in NUL.
    std::string_view data;
    bool data_from_file = false;
};

enum class parse_kind_t { ok, help, version, usage };

// Holds a whole payload: keep it in static storage, not on the stack.
struct parse_result_t {
    parse_kind_t kind = parse_kind_t::ok;
    options_t opts;
    char error[ERROR_MAX] = "";  // usage: what was wrong, one line
};

// args excludes the program name; r starts default-initialised.
void parse_args(std::span<char *const> args, parse_result_t &r);

// Decimal, or hexadecimal after "0x". Nothing else, no sign for unsigned.
std::optional<uint32_t> parse_u32(std::string_view s);
std::optional<int32_t> parse_i32(std::string_view s);

// The usage text, on standard output.
void print_usage();

}  // namespace tovrinctl

// A string_view as the two arguments of printf's "%.*s".
#define TOVRIN_SV(s) static_cast<int>((s).size()), (s).data()
