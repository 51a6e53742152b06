// tovrinctl: command-line client of the tovrin daemon's local IPC.
#include <cstdio>
#include <string_view>
#include <vector>

#include "tools/tovrinctl/args.h"
#include "tools/tovrinctl/commands.h"
#include "tools/tovrinctl/ipc_io.h"
#include "tovrin_version.h"

int main(int argc, char **argv) {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    const tovrinctl::parse_result_t r = tovrinctl::parse_args(args);
    if (r.kind == tovrinctl::parse_kind_t::version) {
        std::fputs("tovrinctl " TOVRIN_VERSION "\n", stdout);
        return 0;
    }
    if (r.kind == tovrinctl::parse_kind_t::help) {
        const std::string_view u = tovrinctl::usage_text();
        std::fwrite(u.data(), 1, u.size(), stdout);
        return 0;
    }
    if (r.kind == tovrinctl::parse_kind_t::usage) {
        std::fprintf(stderr, "tovrinctl: %s\nTry 'tovrinctl --help'.\n", r.error.c_str());
        return 2;
    }
    for (const std::string &w : r.opts.warnings) std::fprintf(stderr, "tovrinctl: warning: %s\n", w.c_str());
    tovrinctl::ipc_catch_signals();
    return tovrinctl::run_command(r.opts);
}
