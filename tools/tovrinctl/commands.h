#pragma once
// Running one parsed command against the daemon; returns the exit status.
#include "tools/tovrinctl/args.h"

namespace tovrinctl {

int run_command(const options_t &o);

}  // namespace tovrinctl
