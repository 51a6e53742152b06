#include "tools/tovrinctl/args.h"

#include <charconv>

#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "tools/tovrinctl/encode.h"
#include "tools/tovrinctl/endpoints.h"
#include "tools/tovrinctl/operands.h"
#include "tools/tovrinctl/table.h"

namespace tovrinctl {

namespace {

bool is_option(std::string_view a) {
    // "-5" is a negative number, not an option.
    return a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
}

bool takes_value(std::string_view opt) {
    return opt == "--timeout" || opt == "--path" || opt == "--count" || opt == "--from" || opt == "--name" ||
           opt == "--id";
}

// One option after the command word; returns false with r.error set on refusal.
bool take_option(parse_result_t &r, std::string_view cmd, std::string_view opt, std::string_view val) {
    options_t &o = r.opts;
    const bool listen = cmd == "listen";
    const bool send = cmd == "send";
    if (opt == "--timeout" && listen)
        return take_number(r, val, parse_u32, true, o.wait_s, "--timeout needs a number of seconds above 0");
    if (opt == "--timeout")
        return take_number(r, val, parse_u32, true, o.timeout_ms, "--timeout needs a number of milliseconds above 0");
    if (opt == "--path") {
        if (val.empty() || val[0] != '/' || val.size() >= VK_IPC_PATH_MAX)
            return usage_error(r, "--path needs an endpoint path starting with '/', shorter than 64 bytes");
        o.path = val;
        return true;
    }
    if (opt == "--count" && listen)
        return take_number(r, val, parse_u32, true, o.count, "--count needs a number above 0");
    if (opt == "--from" && send) return take_number(r, val, parse_i32, false, o.from, "--from needs an endpoint id");
    if (opt == "--name" && send) {
        if (val.size() >= TOVRIN_APP_NAME_LEN) return usage_error(r, "--name is limited to 63 bytes");
        o.name = val;
        return true;
    }
    if (opt == "--id" && send)
        return take_number(r, val, parse_u32, false, o.id, "--id needs an unsigned 32-bit number");
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
    return usage_error(r, "option " + quoted(opt) + " does not apply to '" + std::string(cmd) + "'");
}

// The row whose words w start with, and the operands parsed by it.
bool take_operands(parse_result_t &r, const words_t &w) {
    std::string forms;  // of the rows under this command word, for an unknown second word
    for (const command_spec_t &c : command_table()) {
        if (c.name != w[0]) continue;
        if (c.sub.empty() || (w.size() >= 2 && w[1] == c.sub)) {
            r.opts.cmd = c.cmd;
            return c.parse(r, w, c);
        }
        forms += (forms.empty() ? "" : " | ") + std::string(c.usage);
    }
    if (!forms.empty()) return usage_error(r, "usage: " + forms);
    return usage_error(r, "unknown command " + quoted(w[0]));
}

std::string make_usage() {
    // Help starts at this column; a longer form puts it on the next line.
    constexpr std::size_t HELP_COL = 28;
    std::string u = "Usage: tovrinctl [--timeout MS] [--path PATH] COMMAND [ARGS]\n\nCommands:\n";
    for (const command_spec_t &c : command_table()) {
        std::string line = "  " + std::string(c.usage);
        line +=
            line.size() + 2 <= HELP_COL ? std::string(HELP_COL - line.size(), ' ') : "\n" + std::string(HELP_COL, ' ');
        for (char ch : c.help) line += ch == '\n' ? "\n" + std::string(HELP_COL, ' ') : std::string(1, ch);
        u += line + "\n";
    }
    u += "\n"
         "Options:\n"
         "  --timeout MS              wait this long for a response or answer (default 2000)\n"
         "  --path PATH               daemon endpoint (default /vk/ipc/tovrin)\n"
         "  -h, --help                print this text\n"
         "  --version                 print the version\n"
         "\n"
         "Endpoint ids: " +
         endpoint_ids() +
         ". Paths are taken below $VK_IPC_ROOT.\n"
         "Exit status: 0 success, 1 failure, 2 usage error.\n";
    return u;
}

}  // namespace

std::optional<uint32_t> parse_u32(std::string_view s) {
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        s.remove_prefix(2);
        base = 16;
    }
    if (s.empty() || s[0] == '-' || s[0] == '+') return std::nullopt;
    uint32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, base);
    if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
    return v;
}

std::optional<int32_t> parse_i32(std::string_view s) {
    if (s.empty() || s[0] == '+') return std::nullopt;
    int32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, 10);
    if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
    return v;
}

std::string_view usage_text() {
    static const std::string text = make_usage();
    return text;
}

parse_result_t parse_args(std::span<const std::string_view> args) {
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
        if (a == "--version") {
            r.kind = parse_kind_t::version;
            return r;
        }
        std::string_view opt = a, val;
        if (auto eq = a.find('='); eq != std::string_view::npos && a.starts_with("--")) {
            opt = a.substr(0, eq);
            val = a.substr(eq + 1);
            if (!takes_value(opt)) {
                usage_error(r, "option " + quoted(opt) + " takes no value");
                return r;
            }
        } else if (takes_value(opt)) {
            if (i + 1 >= args.size()) {
                usage_error(r, "option " + quoted(opt) + " needs a value");
                return r;
            }
            val = args[++i];
        }
        // Before the command word only the global options are known.
        std::string_view cmd = words.empty() ? std::string_view{} : words[0];
        if (cmd.empty() && opt != "--timeout" && opt != "--path") {
            usage_error(r, "unknown option " + quoted(opt) + " before the command");
            return r;
        }
        if (!take_option(r, cmd, opt, val)) return r;
    }
    if (words.empty()) {
        usage_error(r, "no command given");
        return r;
    }
    take_operands(r, words);
    return r;
}

}  // namespace tovrinctl
