// Command lines of tovrinctl: what is accepted, with which operands, and what is refused.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/tovrinctl/args.h"
#include "tools/tovrinctl/table.h"

namespace tovrinctl {
namespace {

parse_result_t parse(const std::vector<std::string> &words) {
    std::vector<std::string_view> views(words.begin(), words.end());
    return parse_args(views);
}

struct refusal_case {
    std::vector<std::string> argv;
    std::string error_part;  // must appear in the one-line error
};

TEST(TovrinctlArgs, RefusesMalformedCommandLinesWithAReason) {
    const std::string name64(64, 'n');
    const std::vector<refusal_case> cases = {
        {{}, "no command"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"status", "extra"}, "too many operands"},
        {{"dump", "now"}, "too many operands"},
        {{"log"}, "log get | log set"},
        {{"log", "get", "x"}, "too many operands"},
        {{"log", "set"}, "usage: log set"},
        {{"log", "set", "level"}, "usage: log set"},
        {{"log", "set", "level", "x"}, "log level must be a number"},
        {{"log", "set", "echo", "2"}, "echo must be 0 or 1"},
        {{"log", "set", "max", "-1"}, "log max"},
        {{"log", "set", "colour", "1"}, "not 'colour'"},
        {{"key"}, "missing operand"},
        {{"key", "abc"}, "even number of hex digits"},
        {{"key", "00zz"}, "even number of hex digits"},
        {{"key", ""}, "the key is empty"},
        {{"key", std::string(2 * 16385, 'a')}, "at most 16384"},
        {{"encrypt", "x"}, "signed 32-bit"},
        {{"encrypt", "2147483648"}, "signed 32-bit"},
        {{"notify"}, "usage: notify CODE"},
        {{"notify", "12", "00", "11"}, "usage: notify CODE"},
        {{"notify", "-3"}, "type code"},
        {{"request", "28", "0"}, "even number of hex digits"},
        {{"request", "4294967296"}, "type code"},
        {{"controller", "10.0.0"}, "dotted IPv4"},
        {{"controller", "256.1.1.1"}, "dotted IPv4"},
        {{"karate", "1"}, "missing operand"},
        {{"karate", "x", "5"}, "application id"},
        {{"karate", "1", "-5"}, "rate"},
        {{"listen"}, "missing operand"},
        {{"listen", "103"}, "unknown endpoint id '103'"},
        {{"listen", "101", "--count", "0"}, "--count"},
        {{"listen", "101", "--timeout", "x"}, "seconds"},
        {{"send", "5"}, "missing operand"},
        {{"send", "x", "data"}, "destination"},
        {{"send", "5", "@"}, "file name"},
        {{"send", "5", "--ack", "--from", "103", "x"}, "--ack needs --from"},
        {{"send", "5", "--sync", "--from", "104", "x"}, "--ack needs --from"},
        {{"send", "5", "--name", name64, "x"}, "63 bytes"},
        {{"send", "5", "--id", "-1", "x"}, "--id"},
        {{"send", "5", "--ack=1", "x"}, "takes no value"},
        {{"status", "--ack"}, "does not apply to 'status'"},
        {{"status", "--prometheus"}, "does not apply to 'status'"},
        {{"dump", "--json"}, "does not apply to 'dump'"},
        {{"stats", "now"}, "too many operands"},
        {{"stats", "--json=1"}, "takes no value"},
        {{"status", "--count", "2"}, "does not apply to 'status'"},
        {{"--count", "3", "listen", "101"}, "before the command"},
        {{"status", "--timeout"}, "needs a value"},
        {{"--timeout", "0", "status"}, "milliseconds"},
        {{"--timeout", "1s", "status"}, "milliseconds"},
        {{"--path", "vk/ipc/tovrin", "status"}, "--path"},
        {{"--path", "/" + std::string(63, 'p'), "status"}, "--path"},
    };
    for (const refusal_case &c : cases) {
        std::string shown;
        for (const std::string &w : c.argv) shown += (w.size() > 40 ? w.substr(0, 40) + "..." : w) + " ";
        const parse_result_t r = parse(c.argv);
        EXPECT_EQ(r.kind, parse_kind_t::usage) << shown;
        EXPECT_NE(r.error.find(c.error_part), std::string::npos) << shown << "-> error: " << r.error;
    }
}

TEST(TovrinctlArgs, HelpWinsAnywhere) {
    for (const auto &argv :
         std::vector<std::vector<std::string>>{{"--help"}, {"-h"}, {"status", "--help"}, {"send", "5", "-h", "x"}})
        EXPECT_EQ(parse(argv).kind, parse_kind_t::help) << argv[0];
    for (const auto &argv :
         std::vector<std::vector<std::string>>{{"--version"}, {"--timeout", "5", "--version"}, {"status", "--version"}})
        EXPECT_EQ(parse(argv).kind, parse_kind_t::version) << argv.back();
    EXPECT_NE(std::string(usage_text()).find("\n  --version "), std::string::npos);
}

struct accept_case {
    std::vector<std::string> argv;
    std::function<void(const options_t &)> check;
};

// The options carry exactly one warning, and it says text.
void expect_one_warning(const options_t &o, const char *text) {
    ASSERT_EQ(o.warnings.size(), 1u);
    EXPECT_NE(o.warnings[0].find(text), std::string::npos) << o.warnings[0];
}

TEST(TovrinctlArgs, AcceptsEachCommandWithItsOperands) {
    const std::vector<accept_case> cases = {
        {{"status"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::status);
             EXPECT_EQ(o.timeout_ms, 2000u);
             EXPECT_EQ(o.path, "/vk/ipc/tovrin");
         }},
        {{"--timeout", "500", "--path", "/vk/ipc/other", "status"},
         [](const options_t &o) {
             EXPECT_EQ(o.timeout_ms, 500u);
             EXPECT_EQ(o.path, "/vk/ipc/other");
         }},
        {{"dump", "--timeout=750"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::dump);
             EXPECT_EQ(o.timeout_ms, 750u);
         }},
        {{"log", "get"}, [](const options_t &o) { EXPECT_EQ(o.cmd, command_t::log_get); }},
        {{"status", "--json"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::status);
             EXPECT_EQ(o.format, format_t::json);
         }},
        {{"stats"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::stats);
             EXPECT_EQ(o.format, format_t::text);
         }},
        {{"stats", "--json"}, [](const options_t &o) { EXPECT_EQ(o.format, format_t::json); }},
        {{"stats", "--prometheus"}, [](const options_t &o) { EXPECT_EQ(o.format, format_t::prometheus); }},
        {{"log", "set", "level", "-2", "max", "0x800"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::log_set);
             EXPECT_EQ(o.log_level, -2);
             EXPECT_FALSE(o.log_echo.has_value());
             EXPECT_EQ(o.log_max, 2048u);
         }},
        {{"log", "set", "echo", "1"},
         [](const options_t &o) {
             EXPECT_EQ(o.log_echo, 1);
             EXPECT_FALSE(o.log_level.has_value());
             EXPECT_FALSE(o.log_max.has_value());
         }},
        {{"key", "000102030405060708090a0b0c0d0e0F"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::key);
             ASSERT_EQ(o.bytes.size(), 16u);
             EXPECT_EQ(o.bytes[15], 0x0f);
             EXPECT_TRUE(o.warnings.empty());
         }},
        {{"key", "0xa1b2"},
         [](const options_t &o) {
             EXPECT_EQ(o.bytes, (std::vector<uint8_t>{0xa1, 0xb2}));
             expect_one_warning(o, "2 bytes");
         }},
        {{"key", "000102030405060708090a0b0c0d0e0f1011121314"},
         [](const options_t &o) {
             expect_one_warning(o, "21 bytes; the daemon keeps keys of up to 20 bytes, refuses");
         }},
        {{"key", "000102030405060708090a0b0c0d0e0f10111213"},
         [](const options_t &o) {
             expect_one_warning(o, "20 bytes; the daemon keeps up to 20 but only a 16-byte key works");
         }},
        {{"encrypt", "-1"}, [](const options_t &o) { EXPECT_EQ(o.state, -1); }},
        {{"encrypt", "-2147483648"}, [](const options_t &o) { EXPECT_EQ(o.state, INT32_MIN); }},
        {{"notify", "0x7c"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::notify);
             EXPECT_EQ(o.code, 124u);
             EXPECT_TRUE(o.bytes.empty());
         }},
        {{"request", "28", "0102"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::request);
             EXPECT_EQ(o.code, 28u);
             EXPECT_EQ(o.bytes, (std::vector<uint8_t>{1, 2}));
         }},
        {{"controller", "192.168.1.20"},
         [](const options_t &o) {
             EXPECT_EQ(o.addr, (std::array<uint8_t, 4>{192, 168, 1, 20}));
         }},
        {{"karate", "-7", "4294967295"},
         [](const options_t &o) {
             EXPECT_EQ(o.app_id, -7);
             EXPECT_EQ(o.rate, 4294967295u);
         }},
        // --timeout before the command is milliseconds, after 'listen' seconds.
        {{"--timeout", "100", "listen", "109", "--timeout", "3", "--count", "2"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::listen);
             EXPECT_EQ(o.endpoint, 109);
             EXPECT_EQ(o.timeout_ms, 100u);
             EXPECT_EQ(o.wait_s, 3u);
             EXPECT_EQ(o.count, 2u);
         }},
        {{"listen", "101"},
         [](const options_t &o) {
             EXPECT_FALSE(o.count.has_value());
             EXPECT_FALSE(o.wait_s.has_value());
         }},
        {{"send", "200", "hello"},
         [](const options_t &o) {
             EXPECT_EQ(o.cmd, command_t::send);
             EXPECT_EQ(o.dst, 200);
             EXPECT_EQ(o.from, 101);
             EXPECT_EQ(o.name, "tovrinctl");
             EXPECT_EQ(o.id, 0u);
             EXPECT_FALSE(o.ack);
             EXPECT_FALSE(o.sync);
             EXPECT_EQ(o.data, "hello");
             EXPECT_FALSE(o.data_from_file);
         }},
        {{"send", "200", "--sync", "--from", "102", "--name", "probe", "--id", "9", "@/tmp/x"},
         [](const options_t &o) {
             EXPECT_TRUE(o.ack);
             EXPECT_TRUE(o.sync);
             EXPECT_EQ(o.from, 102);
             EXPECT_EQ(o.name, "probe");
             EXPECT_EQ(o.id, 9u);
             EXPECT_TRUE(o.data_from_file);
             EXPECT_EQ(o.data, "/tmp/x");
         }},
        // Without --ack an id outside the table is only a number in the header.
        {{"send", "-4", "--from", "103", "--ack", "--from", "105", "x"},
         [](const options_t &o) {
             EXPECT_EQ(o.dst, -4);
             EXPECT_EQ(o.from, 105);
             EXPECT_TRUE(o.ack);
             EXPECT_FALSE(o.sync);
         }},
        {{"send", "5", "--", "--ack"},
         [](const options_t &o) {
             EXPECT_FALSE(o.ack);
             EXPECT_EQ(o.data, "--ack");
         }},
    };
    for (const accept_case &c : cases) {
        const parse_result_t r = parse(c.argv);
        std::string shown;
        for (const std::string &w : c.argv) shown += w + " ";
        ASSERT_EQ(r.kind, parse_kind_t::ok) << shown << "-> " << r.error;
        SCOPED_TRACE(shown);
        c.check(r.opts);
    }
}

// The usage text is made from the command table: every row is listed with its
// form and help, and the words of every row reach that row's parser.
TEST(TovrinctlArgs, UsageListsEveryCommandOfTheTable) {
    const std::string usage(usage_text());
    ASSERT_GE(command_table().size(), 12u);
    for (const command_spec_t &c : command_table()) {
        const std::string line = "\n  " + std::string(c.usage);
        EXPECT_NE(usage.find(line), std::string::npos) << c.usage;
        const std::string help_start(c.help.substr(0, c.help.find('\n')));
        EXPECT_NE(usage.find(help_start, usage.find(line)), std::string::npos) << c.help;
        std::vector<std::string> words{std::string(c.name)};
        if (!c.sub.empty()) words.emplace_back(c.sub);
        const parse_result_t r = parse(words);
        if (r.kind == parse_kind_t::ok)
            EXPECT_EQ(r.opts.cmd, c.cmd) << c.usage;
        else
            EXPECT_EQ(r.error.find("unknown command"), std::string::npos) << c.usage << ": " << r.error;
    }
    EXPECT_NE(usage.find("Endpoint ids: 101 102 105 106 107 108 109."), std::string::npos);
}

TEST(TovrinctlArgs, NumbersAreDecimalOrHexWithinTheirRange) {
    EXPECT_EQ(parse_u32("0"), 0u);
    EXPECT_EQ(parse_u32("4294967295"), 4294967295u);
    EXPECT_EQ(parse_u32("0xFFFFFFFF"), 4294967295u);
    EXPECT_EQ(parse_u32("010"), 10u);  // not octal
    for (const char *bad : {"", "4294967296", "-1", "+1", "0x", "12a", " 1", "0x1g"})
        EXPECT_FALSE(parse_u32(bad).has_value()) << bad;
    EXPECT_EQ(parse_i32("-2147483648"), INT32_MIN);
    EXPECT_EQ(parse_i32("2147483647"), INT32_MAX);
    for (const char *bad : {"", "2147483648", "-2147483649", "+1", "1.5", "0x10"})
        EXPECT_FALSE(parse_i32(bad).has_value()) << bad;
}

}  // namespace
}  // namespace tovrinctl
