#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tools/drav-sim/engine.h"
#include "tools/drav-sim/format.h"

namespace {

const char *const help_lines[] = {
    "# commands:",
    "#   send [--enc] [--count K] SRC DST TEXT|@FILE|--size N   queue K messages to the AP",
    "#   key HEX            payload key, 16/24/32 bytes",
    "#   dravip ADDR        send a DRAV IP message naming ADDR",
    "#   ka on|off          answer keepalive requests or not",
    "#   reg on|off         answer registration requests or not",
    "#   ack on|off         acknowledge the AP's messages or not",
    "#   drop P             lose a fraction P (0..1) of datagrams each way",
    "#   stats              print the summary now",
    "#   quit               print the summary and exit",
};

void note(dsim_engine &e, const std::string &s) { dsim_print(e, dsim_line::note, "# " + s); }

bool parse_num(const std::string &s, unsigned long max, unsigned long &out) {
    if (s.empty() || s[0] == '-') return false;
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

bool on_off(dsim_engine &e, const std::string &arg, bool &flag, const char *what) {
    if (arg != "on" && arg != "off") return false;
    flag = arg == "on";
    note(e, std::string(what) + " " + arg);
    return true;
}

// "send [--enc] [--count K] SRC DST TEXT|@FILE|--size N"; TEXT is the rest of
// the line, spaces included.
bool cmd_send(dsim_engine &e, std::istringstream &in) {
    bool enc = false;
    unsigned long count = 1, src = 0, dst = 0, size = 0;
    std::string w;
    for (;;) {
        if (!(in >> w)) return false;
        if (w == "--enc")
            enc = true;
        else if (w == "--count") {
            std::string n;
            if (!(in >> n) || !parse_num(n, 1000000, count) || count == 0) return false;
        } else
            break;
    }
    std::string d;
    if (!parse_num(w, 0xffffffff, src) || !(in >> d) || !parse_num(d, 0xffffffff, dst)) return false;
    std::string rest;
    std::getline(in >> std::ws, rest);
    dsim_bytes data;
    if (rest.rfind("--size", 0) == 0) {
        std::istringstream r(rest.substr(6));
        std::string n, extra;
        if (!(r >> n) || (r >> extra) || !parse_num(n, TOVRIN_MAX_PAYLOAD, size)) return false;
        data.resize(size);
        for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>('a' + i % 26);
    } else if (!rest.empty() && rest[0] == '@') {
        std::ifstream f(rest.substr(1), std::ios::binary);
        if (!f) {
            note(e, "send: cannot read " + rest.substr(1));
            return true;
        }
        data.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    } else {
        data.assign(rest.begin(), rest.end());
    }
    dsim_engine_send(e, enc, static_cast<uint32_t>(src), static_cast<uint32_t>(dst), data, static_cast<long>(count));
    return true;
}

bool cmd_dravip(dsim_engine &e, const std::string &arg) {
    in_addr a{};
    if (inet_pton(AF_INET, arg.c_str(), &a) != 1) return false;
    if (!e.have_peer) {
        note(e, "dravip: the AP is not known yet");
        return true;
    }
    dsim_emit(e, e.peer, dsim_build_dravip(a.s_addr), "DRAVIP addr=" + arg);
    return true;
}

bool cmd_key(dsim_engine &e, const std::string &arg) {
    dsim_bytes k;
    if (!dsim_parse_hex(arg, k) || (k.size() != 16 && k.size() != 24 && k.size() != 32)) return false;
    e.key = std::move(k);
    note(e, "key set, " + std::to_string(e.key.size()) + " bytes");
    return true;
}

}  // namespace

bool dsim_engine_command(dsim_engine &e, const std::string &line) {
    std::istringstream in(line);
    std::string cmd, arg;
    if (!(in >> cmd)) return true;  // blank line
    bool ok = true;
    if (cmd == "help") {
        for (const char *h : help_lines) note(e, h + 2);
    } else if (cmd == "quit") {
        e.quit = true;
    } else if (cmd == "stats") {
        dsim_engine_summary(e);
    } else if (cmd == "send") {
        ok = cmd_send(e, in);
    } else if (!(in >> arg)) {
        ok = false;
    } else if (cmd == "ka") {
        ok = on_off(e, arg, e.cfg.answer_ka, "ka");
    } else if (cmd == "reg") {
        ok = on_off(e, arg, e.cfg.answer_reg, "reg");
    } else if (cmd == "ack") {
        ok = on_off(e, arg, e.cfg.ack, "ack");
    } else if (cmd == "drop") {
        char *end = nullptr;
        double p = std::strtod(arg.c_str(), &end);
        ok = *end == '\0' && p >= 0.0 && p <= 1.0;
        if (ok) {
            e.cfg.drop = p;
            note(e, "drop " + arg);
        }
    } else if (cmd == "dravip") {
        ok = cmd_dravip(e, arg);
    } else if (cmd == "key") {
        ok = cmd_key(e, arg);
    } else {
        ok = false;
    }
    if (!ok) note(e, "bad command: " + line + " (try help)");
    return ok;
}
