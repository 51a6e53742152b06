// tovrin-pcap: reads a capture of the tovrin link (pcap or pcapng; Ethernet,
// Linux cooked or raw IPv4) and prints its data messages, both directions put
// together, decrypted and checked with --key, and a summary.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/drav-sim/format.h"
#include "tools/tovrin-pcap/capture.h"
#include "tools/tovrin-pcap/decoder.h"
#include "tools/tovrin-pcap/report.h"
#include "tovrin_version.h"

namespace {

struct options {
    std::string file;
    tpcap_report_opts report;
    bool dgrams = false;
    bool summary = true;
    dsim_bytes key;
    unsigned long port = TOVRIN_PORT;
};

// Each option once, with its usage text; the usage is made from this table.
struct option_def {
    const char *name;
    const char *arg;  // nullptr: takes none
    const char *help;
    bool (*apply)(options &o, const char *arg);
};

const option_def option_table[] = {
    {"--key", "HEX", "payload key (16, 24 or 32 bytes): decrypt and check the digest",
     [](options &o, const char *a) {
         return dsim_parse_hex(a, o.key) && (o.key.size() == 16 || o.key.size() == 24 || o.key.size() == 32);
     }},
    {"--json", nullptr, "one JSON object per line instead of text",
     [](options &o, const char *) { return o.report.json = true; }},
    {"--datagrams", nullptr, "also one line per datagram, before the messages",
     [](options &o, const char *) { return o.dgrams = true; }},
    {"--full", nullptr, "print all of each message's data, not the first 64 bytes",
     [](options &o, const char *) { return o.report.full = true; }},
    {"--no-summary", nullptr, "leave out the summary line",
     [](options &o, const char *) { return !(o.summary = false); }},
    {"--port", "N", "the link's UDP port (6650)",
     [](options &o, const char *a) {
         char *end = nullptr;
         o.port = std::strtoul(a, &end, 10);
         return *a != '\0' && *end == '\0' && o.port > 0 && o.port < 65536;
     }},
};

void usage(FILE *to) {
    std::fputs(
        "usage: tovrin-pcap [options] FILE\n"
        "Prints the tovrin link's data messages in a capture (pcap or pcapng; - is standard input),\n"
        "one line each, then a summary: messages, retransmissions, acknowledgements missing and\n"
        "fragments lost.\n",
        to);
    for (const option_def &d : option_table) {
        std::string left = std::string(d.name) + (d.arg ? std::string(" ") + d.arg : "");
        std::fprintf(to, "  %-14s %s\n", left.c_str(), d.help);
    }
    std::fputs("  --version      print the version\n  -h, --help     print this help\n", to);
}

// 0: run; otherwise the exit status to leave with.
int parse(int argc, char **argv, options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            usage(stdout);
            return -1;
        }
        if (a == "--version") {
            std::fputs("tovrin-pcap " TOVRIN_VERSION "\n", stdout);
            return -1;
        }
        const option_def *d = nullptr;
        for (const option_def &c : option_table)
            if (a == c.name) d = &c;
        if (d) {
            const char *arg = nullptr;
            if (d->arg) {
                if (i + 1 >= argc) {
                    std::fprintf(stderr, "tovrin-pcap: %s needs %s\n", d->name, d->arg);
                    return 2;
                }
                arg = argv[++i];
            }
            if (!d->apply(o, arg)) {
                std::fprintf(stderr, "tovrin-pcap: bad %s %s\n", d->name, arg ? arg : "");
                return 2;
            }
        } else if (a.size() > 1 && a[0] == '-') {
            std::fprintf(stderr, "tovrin-pcap: unknown option %s\n", a.c_str());
            usage(stderr);
            return 2;
        } else if (o.file.empty()) {
            o.file = a;
        } else {
            std::fprintf(stderr, "tovrin-pcap: one capture file at a time\n");
            return 2;
        }
    }
    if (o.file.empty()) {
        usage(stderr);
        return 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    options o;
    int r = parse(argc, argv, o);
    if (r != 0) return r < 0 ? 0 : r;
    tpcap_decoder d;
    d.key = o.key;
    d.port = static_cast<uint16_t>(o.port);
    d.keep_dgrams = o.dgrams;
    int dlt = -1;
    std::string err =
        tpcap_read_file(o.file, dlt, [&](const tpcap_frame &f) { tpcap_feed_frame(d, dlt, f.usec, f.bytes); });
    if (dlt < 0) {  // libpcap's reason names the file
        std::fprintf(stderr, "tovrin-pcap: %s\n", err.c_str());
        return 1;
    }
    tpcap_finish(d);
    for (const tpcap_dgram &g : d.dgrams) std::puts(tpcap_fmt_dgram(g, o.report).c_str());
    for (const tpcap_msg &m : d.messages) std::puts(tpcap_fmt_msg(m, o.report).c_str());
    if (o.summary) std::puts(tpcap_fmt_summary(d.st, o.report).c_str());
    if (!err.empty()) {
        std::fflush(stdout);  // what was read, then why reading stopped
        std::fprintf(stderr, "tovrin-pcap: %s: %s\n", o.file.c_str(), err.c_str());
        return 1;
    }
    return 0;
}
