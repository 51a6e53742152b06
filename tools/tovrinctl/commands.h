#pragma once
// The actions of tovrinctl's commands against the daemon; each returns the
// exit status. The command table (tools/tovrinctl/table.cpp) names them.
#include "tools/tovrinctl/args.h"

namespace tovrinctl {

// Runs the action of o.cmd's row.
int run_command(const options_t &o);

// status, log get, log set, dump, request: a request and its response.
int run_request(const options_t &o);
// Notifications 180, 181, 149, 121 and a raw one.
int run_key(const options_t &o);
int run_encrypt(const options_t &o);
int run_controller(const options_t &o);
int run_karate(const options_t &o);
int run_notify(const options_t &o);
// Binds the endpoint and prints what arrives there.
int run_listen(const options_t &o);
// An application message, and its outcome when asked for.
int run_send(const options_t &o);

}  // namespace tovrinctl
