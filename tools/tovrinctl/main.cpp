// tovrinctl: command-line client of the tovrin daemon's local IPC.
#include <cstdio>

#include "tools/tovrinctl/args.h"
#include "tools/tovrinctl/commands.h"
#include "tools/tovrinctl/ipc_io.h"
#include "tovrin_version.h"

int main(int argc, char **argv) {
    static tovrinctl::parse_result_t r;  // holds a whole payload
    tovrinctl::parse_args(std::span<char *const>(argv + 1, argc > 0 ? std::size_t(argc - 1) : 0), r);
    if (r.kind == tovrinctl::parse_kind_t::version) {
        std::fputs("tovrinctl " TOVRIN_VERSION "\n", stdout);
        return 0;
    }
    if (r.kind == tovrinctl::parse_kind_t::help) {
        tovrinctl::print_usage();
        return 0;
    }
    if (r.kind == tovrinctl::parse_kind_t::usage) {
        std::fprintf(stderr, "tovrinctl: %s\nTry 'tovrinctl --help'.\n", r.error);
        return 2;
    }
    if (r.opts.warning[0] != '\0') std::fprintf(stderr, "tovrinctl: warning: %s\n", r.opts.warning);
    tovrinctl::ipc_catch_signals();
    return tovrinctl::run_command(r.opts);
}
