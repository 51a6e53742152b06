#include "tools/tovrinctl/args.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

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

// val into a NUL-terminated field of n bytes; the caller has checked that it fits.
template <std::size_t N>
void copy_text(char (&field)[N], std::string_view val) {
    std::memcpy(field, val.data(), val.size());
    field[val.size()] = '\0';
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
        copy_text(o.path, val);
        return true;
    }
    if (opt == "--count" && listen)
        return take_number(r, val, parse_u32, true, o.count, "--count needs a number above 0");
    if (opt == "--from" && send) return take_number(r, val, parse_i32, false, o.from, "--from needs an endpoint id");
    if (opt == "--name" && send) {
        if (val.size() >= TOVRIN_APP_NAME_LEN) return usage_error(r, "--name is limited to 63 bytes");
        copy_text(o.name, val);
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
    return usage_error(r, "option '%.*s' does not apply to '%.*s'", TOVRIN_SV(opt), TOVRIN_SV(cmd));
}

// The row whose words w start with, and the operands parsed by it.
bool take_operands(parse_result_t &r, const words_t &w) {
    char forms[ERROR_MAX] = "";  // of the rows under this command word, for an unknown second word
    std::size_t used = 0;
    for (const command_spec_t &c : command_table()) {
        if (c.name != w[0]) continue;
        if (c.sub.empty() || (w.size() >= 2 && w[1] == c.sub)) {
            r.opts.cmd = c.cmd;
            return c.parse(r, w, c);
        }
        const int n = std::snprintf(forms + used, sizeof forms - used, "%s%.*s", used ? " | " : "", TOVRIN_SV(c.usage));
        if (n > 0) used = std::min(sizeof forms - 1, used + std::size_t(n));
    }
    if (used != 0) return usage_error(r, "usage: %s", forms);
    return usage_error(r, "unknown command '%.*s'", TOVRIN_SV(w[0]));
}

// Digits of base, no sign, at most limit.
std::optional<uint64_t> parse_digits(std::string_view s, uint32_t base, uint64_t limit) {
    if (s.empty()) return std::nullopt;
    uint64_t v = 0;
    for (char ch : s) {
        uint32_t d = base;
        if (ch >= '0' && ch <= '9') d = uint32_t(ch - '0');
        else if (ch >= 'a' && ch <= 'f') d = uint32_t(ch - 'a' + 10);
        else if (ch >= 'A' && ch <= 'F') d = uint32_t(ch - 'A' + 10);
        if (d >= base) return std::nullopt;
        v = v * base + d;
        if (v > limit) return std::nullopt;
    }
    return v;
}

}  // namespace

std::optional<uint32_t> parse_u32(std::string_view s) {
    uint32_t base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        s.remove_prefix(2);
        base = 16;
    }
    const auto v = parse_digits(s, base, UINT32_MAX);
    if (!v) return std::nullopt;
    return uint32_t(*v);
}

std::optional<int32_t> parse_i32(std::string_view s) {
    const bool negative = !s.empty() && s[0] == '-';
    if (negative) s.remove_prefix(1);
    const auto v = parse_digits(s, 10, negative ? uint64_t(INT32_MAX) + 1 : uint64_t(INT32_MAX));
    if (!v) return std::nullopt;
    return int32_t(negative ? -int64_t(*v) : int64_t(*v));
}

void print_usage() {
    // Help starts at this column; a longer form puts it on the next line.
    constexpr int HELP_COL = 28;
    std::fputs("Usage: tovrinctl [--timeout MS] [--path PATH] COMMAND [ARGS]\n\nCommands:\n", stdout);
    for (const command_spec_t &c : command_table()) {
        const int form = 2 + int(c.usage.size());
        std::printf("  %.*s", TOVRIN_SV(c.usage));
        if (form + 2 <= HELP_COL) std::printf("%*s", HELP_COL - form, "");
        else std::printf("\n%*s", HELP_COL, "");
        for (char ch : c.help)
            if (ch == '\n') std::printf("\n%*s", HELP_COL, "");
            else std::putchar(ch);
        std::putchar('\n');
    }
    std::printf("\n"
                "Options:\n"
                "  --timeout MS              wait this long for a response or answer (default 2000)\n"
                "  --path PATH               daemon endpoint (default /vk/ipc/tovrin)\n"
                "  -h, --help                print this text\n"
                "  --version                 print the version\n"
                "\n"
                "Endpoint ids: %s. Paths are taken below $VK_IPC_ROOT.\n"
                "Exit status: 0 success, 1 failure, 2 usage error.\n",
                endpoint_ids());
}

void parse_args(std::span<char *const> args, parse_result_t &r) {
    words_t words;  // the command word and its operands
    bool only_operands = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view a = args[i];
        if (!only_operands && a == "--") {
            only_operands = true;
            continue;
        }
        if (only_operands || !is_option(a)) {
            if (words.n == words_t::MAX) {
                usage_error(r, "too many operands");
                return;
            }
            words.at[words.n++] = a;
            continue;
        }
        if (a == "--help" || a == "-h") {
            r.kind = parse_kind_t::help;
            return;
        }
        if (a == "--version") {
            r.kind = parse_kind_t::version;
            return;
        }
        std::string_view opt = a, val;
        if (const std::size_t eq = a.find('='); eq != std::string_view::npos && a[1] == '-') {
            opt = std::string_view(a.data(), eq);
            val = std::string_view(a.data() + eq + 1, a.size() - eq - 1);
            if (!takes_value(opt)) {
                usage_error(r, "option '%.*s' takes no value", TOVRIN_SV(opt));
                return;
            }
        } else if (takes_value(opt)) {
            if (i + 1 >= args.size()) {
                usage_error(r, "option '%.*s' needs a value", TOVRIN_SV(opt));
                return;
            }
            val = args[++i];
        }
        // Before the command word only the global options are known.
        const std::string_view cmd = words.n == 0 ? std::string_view{} : words[0];
        if (cmd.empty() && opt != "--timeout" && opt != "--path") {
            usage_error(r, "unknown option '%.*s' before the command", TOVRIN_SV(opt));
            return;
        }
        if (!take_option(r, cmd, opt, val)) return;
    }
    if (words.n == 0) {
        usage_error(r, "no command given");
        return;
    }
    take_operands(r, words);
}

}  // namespace tovrinctl
