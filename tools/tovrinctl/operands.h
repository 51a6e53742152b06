#pragma once
// Parsers of each command's operands, named in the command table
// (tools/tovrinctl/table.cpp). Pure: they read no files and touch no sockets.
#include <string_view>

#include "tools/tovrinctl/table.h"

namespace tovrinctl {

// Marks r as a usage error, the line made by printf's rules; returns false.
[[gnu::format(printf, 2, 3)]] bool usage_error(parse_result_t &r, const char *fmt, ...);
// Stores the number parse reads from text into `into` (above 0 when positive
// is set); else a usage error: why, then the text quoted.
template <typename Parse, typename T>
bool take_number(parse_result_t &r, std::string_view text, Parse parse, bool positive, T &into, const char *why) {
    const auto v = parse(text);
    if (!v || (positive && *v == 0)) return usage_error(r, "%s, not '%.*s'", why, TOVRIN_SV(text));
    into = *v;
    return true;
}

// Each: the operands w (command word first) of row c into r.opts, or false.
bool parse_no_operands(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_log_set(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_key(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_encrypt(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_raw(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_controller(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_karate(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_listen(parse_result_t &r, const words_t &w, const command_spec_t &c);
bool parse_send(parse_result_t &r, const words_t &w, const command_spec_t &c);

}  // namespace tovrinctl
