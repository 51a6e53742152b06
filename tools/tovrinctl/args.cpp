#include "tools/tovrinctl/args.h"

#include <charconv>

#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "tools/tovrinctl/encode.h"
#include "tools/tovrinctl/endpoints.h"

namespace tovrinctl {

namespace {

constexpr std::string_view USAGE =
    "Usage: tovrinctl [--timeout MS] [--path PATH] COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  status [--json]           print the controller address and the link state\n"
    "  stats [--json | --prometheus]\n"
    "                            print the daemon's counters: a table, one JSON object,\n"
    "                            or the Prometheus text format (metrics tovrin_*)\n"
    "  log get                   print the log configuration\n"
    "  log set [level N] [echo 0|1] [max BYTES]\n"
    "                            change the given words of the log configuration\n"
    "  dump                      have the daemon write /tmp/tovrindumpfile\n"
    "  key HEX                   set the link key (16 bytes: AES-128)\n"
    "  encrypt STATE             set the encryption state (1 encrypts)\n"
    "  controller ADDR           set the controller's IPv4 address\n"
    "  karate APPID RATE         keepalive rate for an application (RATE 0 withdraws)\n"
    "  notify CODE [HEX]         send a notification with a raw payload\n"
    "  request CODE [HEX]        send a request with a raw payload, print the response\n"
    "  listen ID [--count N] [--timeout SEC]\n"
    "                            bind endpoint ID and print every message it receives\n"
    "  send DST [--from ID] [--name NAME] [--id N] [--ack] [--sync] DATA|@FILE\n"
    "                            send an application message to the controller;\n"
    "                            --ack waits for the outcome, --sync (implies --ack)\n"
    "                            asks for it as a response\n"
    "\n"
    "Options:\n"
    "  --timeout MS              wait this long for a response or answer (default 2000)\n"
    "  --path PATH               daemon endpoint (default /vk/ipc/tovrin)\n"
    "  -h, --help                print this text\n"
    "\n"
    "Endpoint ids: 101 102 105 106 107 108 109. Paths are taken below $VK_IPC_ROOT.\n"
    "Exit status: 0 success, 1 failure, 2 usage error.\n";

using words_t = std::vector<std::string_view>;

bool is_option(std::string_view a)
{
    // "-5" is a negative number, not an option.
    return a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
}

bool takes_value(std::string_view opt)
{
    return opt == "--timeout" || opt == "--path" || opt == "--count" || opt == "--from" ||
           opt == "--name" || opt == "--id";
}

bool fail(parse_result_t &r, std::string msg)
{
    r.kind = parse_kind_t::usage;
    r.error = std::move(msg);
    return false;
}

std::string quoted(std::string_view s) { return "'" + std::string(s) + "'"; }

// One option after the command word; returns false with r.error set on refusal.
bool take_option(parse_result_t &r, std::string_view cmd, std::string_view opt,
                 std::string_view val)
{
    options_t &o = r.opts;
    const bool listen = cmd == "listen";
    const bool send = cmd == "send";
    if (opt == "--timeout" && listen) {
        auto v = parse_u32(val);
        if (!v || *v == 0)
            return fail(r, "--timeout needs a number of seconds above 0, not " + quoted(val));
        o.wait_s = *v;
        return true;
    }
    if (opt == "--timeout") {
        auto v = parse_u32(val);
        if (!v || *v == 0)
            return fail(r, "--timeout needs a number of milliseconds above 0, not " + quoted(val));
        o.timeout_ms = *v;
        return true;
    }
    if (opt == "--path") {
        if (val.empty() || val[0] != '/' || val.size() >= VK_IPC_PATH_MAX)
            return fail(r, "--path needs an endpoint path starting with '/', shorter than 64 bytes");
        o.path = val;
        return true;
    }
    if (opt == "--count" && listen) {
        auto v = parse_u32(val);
        if (!v || *v == 0)
            return fail(r, "--count needs a number above 0, not " + quoted(val));
        o.count = *v;
        return true;
    }
    if (opt == "--from" && send) {
        auto v = parse_i32(val);
        if (!v)
            return fail(r, "--from needs an endpoint id, not " + quoted(val));
        o.from = *v;
        return true;
    }
    if (opt == "--name" && send) {
        if (val.size() >= TOVRIN_APP_NAME_LEN)
            return fail(r, "--name is limited to 63 bytes");
        o.name = val;
        return true;
    }
    if (opt == "--id" && send) {
        auto v = parse_u32(val);
        if (!v)
            return fail(r, "--id needs an unsigned 32-bit number, not " + quoted(val));
        o.id = *v;
        return true;
    }
    if (opt == "--json" && (cmd == "status" || cmd == "stats")) {
        o.format = format_t::json;
        return true;
    }
    if (opt == "--prometheus" && cmd == "stats") {
        o.format = format_t::prometheus;
        return true;
    }
    if (opt == "--ack" && send) {
        o.ack = true;
        return true;
    }
    if (opt == "--sync" && send) {
        o.ack = o.sync = true;  // a synchronous answer is still an answer
        return true;
    }
    return fail(r, "option " + quoted(opt) + " does not apply to '" + std::string(cmd) + "'");
}

bool want_count(parse_result_t &r, const words_t &w, std::size_t n, std::string_view form)
{
    if (w.size() == n)
        return true;
    return fail(r, std::string(w.size() < n ? "missing operand" : "too many operands") +
                       "; usage: " + std::string(form));
}

bool take_hex(parse_result_t &r, std::string_view text, std::size_t max, std::string_view what)
{
    auto bytes = parse_hex(text);
    if (!bytes)
        return fail(r, std::string(what) + " must be an even number of hex digits, not " + quoted(text));
    if (bytes->size() > max)
        return fail(r, std::string(what) + " is " + std::to_string(bytes->size()) + " bytes; at most " +
                           std::to_string(max) + " fit one message");
    r.opts.bytes = std::move(*bytes);
    return true;
}

bool take_log_set(parse_result_t &r, const words_t &w)
{
    options_t &o = r.opts;
    if (w.size() < 4 || w.size() % 2 != 0)
        return fail(r, "usage: log set [level N] [echo 0|1] [max BYTES]");
    for (std::size_t i = 2; i < w.size(); i += 2) {
        std::string_view key = w[i], val = w[i + 1];
        if (key == "level") {
            auto v = parse_i32(val);
            if (!v)
                return fail(r, "log level must be a number, not " + quoted(val));
            o.log_level = *v;
        } else if (key == "echo") {
            if (val != "0" && val != "1")
                return fail(r, "log echo must be 0 or 1, not " + quoted(val));
            o.log_echo = val == "1" ? 1 : 0;
        } else if (key == "max") {
            auto v = parse_u32(val);
            if (!v)
                return fail(r, "log max must be a number of bytes, not " + quoted(val));
            o.log_max = *v;
        } else {
            return fail(r, "log set knows level, echo and max, not " + quoted(key));
        }
    }
    return true;
}

bool take_operands(parse_result_t &r, const words_t &w)
{
    options_t &o = r.opts;
    const std::string_view cmd = w[0];
    if (cmd == "stats") {
        o.cmd = command_t::stats;
        return want_count(r, w, 1, cmd);
    }
    if (cmd == "status" || cmd == "dump") {
        o.cmd = cmd == "status" ? command_t::status : command_t::dump;
        return want_count(r, w, 1, cmd);
    }
    if (cmd == "log") {
        if (w.size() >= 2 && w[1] == "get") {
            o.cmd = command_t::log_get;
            return want_count(r, w, 2, "log get");
        }
        if (w.size() >= 2 && w[1] == "set") {
            o.cmd = command_t::log_set;
            return take_log_set(r, w);
        }
        return fail(r, "usage: log get | log set [level N] [echo 0|1] [max BYTES]");
    }
    if (cmd == "key") {
        o.cmd = command_t::key;
        if (!want_count(r, w, 2, "key HEX") ||
            !take_hex(r, w[1], VK_IPC_PAYLOAD_MAX - 4, "the key"))
            return false;
        if (o.bytes.empty())
            return fail(r, "the key is empty");
        if (o.bytes.size() != 16)
            o.warnings.push_back("the key is " + std::to_string(o.bytes.size()) +
                                 " bytes; the daemon keeps 16 and only a 16-byte key works "
                                 "for its AES-128; sending it anyway");
        return true;
    }
    if (cmd == "encrypt") {
        o.cmd = command_t::encrypt;
        if (!want_count(r, w, 2, "encrypt STATE"))
            return false;
        auto v = parse_i32(w[1]);
        if (!v)
            return fail(r, "the state must be a signed 32-bit number, not " + quoted(w[1]));
        o.state = *v;
        return true;
    }
    if (cmd == "notify" || cmd == "request") {
        o.cmd = cmd == "notify" ? command_t::notify : command_t::request;
        if (w.size() < 2 || w.size() > 3)
            return fail(r, "usage: " + std::string(cmd) + " CODE [HEX]");
        auto v = parse_u32(w[1]);
        if (!v)
            return fail(r, "the type code must be an unsigned number, not " + quoted(w[1]));
        o.code = *v;
        return w.size() == 2 || take_hex(r, w[2], VK_IPC_PAYLOAD_MAX, "the payload");
    }
    if (cmd == "controller") {
        o.cmd = command_t::controller;
        if (!want_count(r, w, 2, "controller ADDR"))
            return false;
        auto a = encode_controller(w[1]);
        if (!a)
            return fail(r, "the controller address must be dotted IPv4, not " + quoted(w[1]));
        o.addr = *a;
        return true;
    }
    if (cmd == "karate") {
        o.cmd = command_t::karate;
        if (!want_count(r, w, 3, "karate APPID RATE"))
            return false;
        auto app = parse_i32(w[1]);
        auto rate = parse_u32(w[2]);
        if (!app)
            return fail(r, "the application id must be a signed 32-bit number, not " + quoted(w[1]));
        if (!rate)
            return fail(r, "the rate must be an unsigned 32-bit number, not " + quoted(w[2]));
        o.app_id = *app;
        o.rate = *rate;
        return true;
    }
    if (cmd == "listen") {
        o.cmd = command_t::listen;
        if (!want_count(r, w, 2, "listen ID [--count N] [--timeout SEC]"))
            return false;
        auto v = parse_i32(w[1]);
        if (!v || endpoint_path(*v).empty())
            return fail(r, "unknown endpoint id " + quoted(w[1]) +
                               "; known: 101 102 105 106 107 108 109");
        o.endpoint = *v;
        return true;
    }
    if (cmd == "send") {
        o.cmd = command_t::send;
        if (!want_count(r, w, 3, "send DST [--from ID] [--name NAME] [--id N] [--ack] [--sync] DATA|@FILE"))
            return false;
        auto v = parse_i32(w[1]);
        if (!v)
            return fail(r, "the destination must be an endpoint id, not " + quoted(w[1]));
        o.dst = *v;
        o.data_from_file = !w[2].empty() && w[2][0] == '@';
        o.data = o.data_from_file ? w[2].substr(1) : w[2];
        if (o.data_from_file && o.data.empty())
            return fail(r, "'@' needs a file name");
        // The daemon answers by the table path of src_ep: an id outside the table gets no answer.
        if (o.ack && endpoint_path(o.from).empty())
            return fail(r, "--ack needs --from to be a known endpoint id (101 102 105 106 107 108 "
                           "109), not " + std::to_string(o.from));
        return true;
    }
    return fail(r, "unknown command " + quoted(cmd));
}

}  // namespace

std::optional<uint32_t> parse_u32(std::string_view s)
{
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        s.remove_prefix(2);
        base = 16;
    }
    if (s.empty() || s[0] == '-' || s[0] == '+')
        return std::nullopt;
    uint32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, base);
    if (ec != std::errc() || end != s.data() + s.size())
        return std::nullopt;
    return v;
}

std::optional<int32_t> parse_i32(std::string_view s)
{
    if (s.empty() || s[0] == '+')
        return std::nullopt;
    int32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, 10);
    if (ec != std::errc() || end != s.data() + s.size())
        return std::nullopt;
    return v;
}

std::string_view usage_text() { return USAGE; }

parse_result_t parse_args(std::span<const std::string_view> args)
{
    parse_result_t r;
    words_t words;  // the command word and its operands
    bool only_operands = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view a = args[i];
        if (!only_operands && a == "--") {
            only_operands = true;
            continue;
        }
        if (only_operands || !is_option(a)) {
            words.push_back(a);
            continue;
        }
        if (a == "--help" || a == "-h") {
            r.kind = parse_kind_t::help;
            return r;
        }
        std::string_view opt = a, val;
        if (auto eq = a.find('='); eq != std::string_view::npos && a.starts_with("--")) {
            opt = a.substr(0, eq);
            val = a.substr(eq + 1);
            if (!takes_value(opt)) {
                fail(r, "option " + quoted(opt) + " takes no value");
                return r;
            }
        } else if (takes_value(opt)) {
            if (i + 1 >= args.size()) {
                fail(r, "option " + quoted(opt) + " needs a value");
                return r;
            }
            val = args[++i];
        }
        // Before the command word only the global options are known.
        std::string_view cmd = words.empty() ? std::string_view{} : words[0];
        if (cmd.empty() && opt != "--timeout" && opt != "--path") {
            fail(r, "unknown option " + quoted(opt) + " before the command");
            return r;
        }
        if (!take_option(r, cmd, opt, val))
            return r;
    }
    if (words.empty()) {
        fail(r, "no command given");
        return r;
    }
    take_operands(r, words);
    return r;
}

}  // namespace tovrinctl
