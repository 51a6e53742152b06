#include "tools/tovrinctl/operands.h"

#include <cstdarg>
#include <cstdio>

#include "link/record.h"
#include "platform/ipc.h"
#include "tools/tovrinctl/encode.h"
#include "tools/tovrinctl/endpoints.h"

namespace tovrinctl {

namespace {

bool want_count(parse_result_t &r, const words_t &w, std::size_t n, std::string_view form) {
    if (w.size() == n) return true;
    return usage_error(r, "%s; usage: %.*s", w.size() < n ? "missing operand" : "too many operands", TOVRIN_SV(form));
}

bool take_hex(parse_result_t &r, std::string_view text, std::size_t max, const char *what) {
    const auto n = hex_length(text);
    if (!n) return usage_error(r, "%s must be an even number of hex digits, not '%.*s'", what, TOVRIN_SV(text));
    if (*n > max) return usage_error(r, "%s is %zu bytes; at most %zu fit one message", what, *n, max);
    decode_hex(text, r.opts.bytes);
    r.opts.nbytes = *n;
    return true;
}

}  // namespace

bool usage_error(parse_result_t &r, const char *fmt, ...) {
    r.kind = parse_kind_t::usage;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(r.error, sizeof r.error, fmt, ap);
    va_end(ap);
    return false;
}

bool parse_no_operands(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    return want_count(r, w, c.sub.empty() ? 1 : 2, c.usage);
}

bool parse_log_set(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    options_t &o = r.opts;
    if (w.size() < 4 || w.size() % 2 != 0) return usage_error(r, "usage: %.*s", TOVRIN_SV(c.usage));
    for (std::size_t i = 2; i < w.size(); i += 2) {
        const std::string_view key = w[i], val = w[i + 1];
        if (key == "level") {
            if (!take_number(r, val, parse_i32, false, o.log_level, "log level must be a number")) return false;
        } else if (key == "echo") {
            if (val != "0" && val != "1") return usage_error(r, "log echo must be 0 or 1, not '%.*s'", TOVRIN_SV(val));
            o.log_echo = val == "1" ? 1 : 0;
        } else if (key == "max") {
            if (!take_number(r, val, parse_u32, false, o.log_max, "log max must be a number of bytes")) return false;
        } else {
            return usage_error(r, "log set knows level, echo and max, not '%.*s'", TOVRIN_SV(key));
        }
    }
    return true;
}

bool parse_key(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    options_t &o = r.opts;
    if (!want_count(r, w, 2, c.usage) || !take_hex(r, w[1], VK_IPC_PAYLOAD_MAX - 4, "the key")) return false;
    if (o.nbytes == 0) return usage_error(r, "the key is empty");
    // The daemon keeps keys of up to TOVRIN_KEY_MAX bytes and refuses longer
    // ones; of those it keeps, only a 16-byte key sets up its AES-128.
    if (o.nbytes > TOVRIN_KEY_MAX)
        std::snprintf(o.warning, sizeof o.warning,
                      "the key is %zu bytes; the daemon keeps keys of up to %zu bytes, refuses this one and keeps its "
                      "old key; sending it anyway",
                      o.nbytes, std::size_t(TOVRIN_KEY_MAX));
    else if (o.nbytes != 16)
        std::snprintf(o.warning, sizeof o.warning,
                      "the key is %zu bytes; the daemon keeps up to %zu but only a 16-byte key works for its AES-128; "
                      "sending it anyway",
                      o.nbytes, std::size_t(TOVRIN_KEY_MAX));
    return true;
}

bool parse_encrypt(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    return want_count(r, w, 2, c.usage) &&
           take_number(r, w[1], parse_i32, false, r.opts.state, "the state must be a signed 32-bit number");
}

bool parse_raw(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    if (w.size() < 2 || w.size() > 3) return usage_error(r, "usage: %.*s", TOVRIN_SV(c.usage));
    if (!take_number(r, w[1], parse_u32, false, r.opts.code, "the type code must be an unsigned number")) return false;
    return w.size() == 2 || take_hex(r, w[2], VK_IPC_PAYLOAD_MAX, "the payload");
}

bool parse_controller(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    if (!want_count(r, w, 2, c.usage)) return false;
    const auto a = encode_controller(w[1]);
    if (!a) return usage_error(r, "the controller address must be dotted IPv4, not '%.*s'", TOVRIN_SV(w[1]));
    r.opts.addr = *a;
    return true;
}

bool parse_karate(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    return want_count(r, w, 3, c.usage) &&
           take_number(r, w[1], parse_i32, false, r.opts.app_id, "the application id must be a signed 32-bit number") &&
           take_number(r, w[2], parse_u32, false, r.opts.rate, "the rate must be an unsigned 32-bit number");
}

bool parse_listen(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    if (!want_count(r, w, 2, c.usage)) return false;
    const auto v = parse_i32(w[1]);
    if (!v || endpoint_path(*v).empty())
        return usage_error(r, "unknown endpoint id '%.*s'; known: %s", TOVRIN_SV(w[1]), endpoint_ids());
    r.opts.endpoint = *v;
    return true;
}

bool parse_send(parse_result_t &r, const words_t &w, const command_spec_t &c) {
    options_t &o = r.opts;
    if (!want_count(r, w, 3, c.usage)) return false;
    if (!take_number(r, w[1], parse_i32, false, o.dst, "the destination must be an endpoint id")) return false;
    o.data_from_file = !w[2].empty() && w[2][0] == '@';
    o.data = w[2];
    if (o.data_from_file) o.data.remove_prefix(1);
    if (o.data_from_file && o.data.empty()) return usage_error(r, "'@' needs a file name");
    // The daemon answers by the table path of src_ep: an id outside the table gets no answer.
    if (o.ack && endpoint_path(o.from).empty())
        return usage_error(r, "--ack needs --from to be a known endpoint id (%s), not %d", endpoint_ids(), int(o.from));
    return true;
}

}  // namespace tovrinctl
