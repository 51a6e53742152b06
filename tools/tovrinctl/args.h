#pragma once
// Command line of tovrinctl: argv words -> one command with its operands.
// Pure: reads no files and touches no sockets, so every refusal is testable.
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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
inline constexpr char DEFAULT_NAME[] = "tovrinctl";

struct options_t {
    command_t cmd = command_t::status;
    uint32_t timeout_ms = DEFAULT_TIMEOUT_MS;  // requests and answers
    std::string path = "/vk/ipc/tovrin";       // daemon endpoint
    std::vector<std::string> warnings;         // printed to stderr, the command still runs

    format_t format = format_t::text;  // status (text, json), stats

    uint32_t code = 0;              // notify, request
    std::vector<uint8_t> bytes;     // key bytes; notify/request payload
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
    std::string name = DEFAULT_NAME;
    uint32_t id = 0;
    bool ack = false;
    bool sync = false;
    std::string data;  // literal data, or the file name after '@'
    bool data_from_file = false;
};

enum class parse_kind_t { ok, help, version, usage };

struct parse_result_t {
    parse_kind_t kind = parse_kind_t::ok;
    options_t opts;
    std::string error;  // usage: what was wrong, one line
};

// args excludes the program name.
parse_result_t parse_args(std::span<const std::string_view> args);

// Decimal, or hexadecimal after "0x". Nothing else, no sign for unsigned.
std::optional<uint32_t> parse_u32(std::string_view s);
std::optional<int32_t> parse_i32(std::string_view s);

std::string_view usage_text();

}  // namespace tovrinctl
