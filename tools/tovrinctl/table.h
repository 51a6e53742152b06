#pragma once
// The commands of tovrinctl, one row each: the words that name it, its
// operand form and help line, the parser of its operands and the action that
// runs it. The usage text and the dispatch of both parsing and running are
// made from this table, so help and behaviour cannot disagree.
#include <cstddef>
#include <span>
#include <string_view>

#include "tools/tovrinctl/args.h"

namespace tovrinctl {

// The command word and its operands. More words than fit are refused.
struct words_t {
    static constexpr std::size_t MAX = 32;
    std::string_view at[MAX];
    std::size_t n = 0;
    std::size_t size() const { return n; }
    std::string_view operator[](std::size_t i) const { return at[i]; }
};

struct command_spec_t {
    command_t cmd;
    std::string_view name;   // the command word
    std::string_view sub;    // a second word that must follow it, or empty
    std::string_view usage;  // the whole form, e.g. "karate APPID RATE"
    std::string_view help;   // what it does; lines separated by '\n'
    // Reads the operands w (the command word first) into r.opts; false with
    // r.kind usage and r.error set when they are refused.
    bool (*parse)(parse_result_t &r, const words_t &w, const command_spec_t &c);
    // Runs the parsed command against the daemon; returns the exit status.
    int (*run)(const options_t &o);
};

// Every command, in the order the usage text lists them.
std::span<const command_spec_t> command_table();
// The row of cmd (every command_t has one).
const command_spec_t &command_spec(command_t cmd);

}  // namespace tovrinctl
