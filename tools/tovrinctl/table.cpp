#include "tools/tovrinctl/table.h"

#include <array>

#include "tools/tovrinctl/commands.h"
#include "tools/tovrinctl/operands.h"

namespace tovrinctl {

namespace {

constexpr std::array<command_spec_t, 13> TABLE{{
    {command_t::status, "status", "", "status [--json]", "print the controller address and the link state",
     parse_no_operands, run_request},
    {command_t::stats, "stats", "", "stats [--json | --prometheus]",
     "print the daemon's counters: a table, one JSON object,\nor the Prometheus text format (metrics tovrin_*)",
     parse_no_operands, run_request},
    {command_t::log_get, "log", "get", "log get", "print the log configuration", parse_no_operands, run_request},
    {command_t::log_set, "log", "set", "log set [level N] [echo 0|1] [max BYTES]",
     "change the given words of the log configuration", parse_log_set, run_request},
    {command_t::dump, "dump", "", "dump", "have the daemon write /tmp/tovrindumpfile", parse_no_operands, run_request},
    {command_t::key, "key", "", "key HEX", "set the link key (16 bytes: AES-128)", parse_key, run_key},
    {command_t::encrypt, "encrypt", "", "encrypt STATE", "set the encryption state (1 encrypts)", parse_encrypt,
     run_encrypt},
    {command_t::controller, "controller", "", "controller ADDR", "set the controller's IPv4 address", parse_controller,
     run_controller},
    {command_t::karate, "karate", "", "karate APPID RATE", "keepalive rate for an application (RATE 0 withdraws)",
     parse_karate, run_karate},
    {command_t::notify, "notify", "", "notify CODE [HEX]", "send a notification with a raw payload", parse_raw,
     run_notify},
    {command_t::request, "request", "", "request CODE [HEX]", "send a request with a raw payload, print the response",
     parse_raw, run_request},
    {command_t::listen, "listen", "", "listen ID [--count N] [--timeout SEC]",
     "bind endpoint ID and print every message it receives", parse_listen, run_listen},
    {command_t::send, "send", "", "send DST [--from ID] [--name NAME] [--id N] [--ack] [--sync] DATA|@FILE",
     "send an application message to the controller;\n--ack waits for the outcome, --sync (implies --ack)\n"
     "asks for it as a response",
     parse_send, run_send},
}};

}  // namespace

std::span<const command_spec_t> command_table() { return TABLE; }

const command_spec_t &command_spec(command_t cmd) {
    for (const command_spec_t &c : TABLE)
        if (c.cmd == cmd) return c;
    return TABLE[0];  // not reached: every command has a row
}

}  // namespace tovrinctl
