#include "core/signals.h"

#include <csignal>

#include "core/counters.h"
#include "core/log_rule.h"
#include "platform/eloop.h"

namespace {

void on_hangup(int, void *) {
    VK_LOG_REOPEN();
    TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: %s: log reopened on SIGHUP\n", "tovrin_signals");
}

void on_usr1(int, void *) {
    // Every counter fits: about 70 names of at most 40 characters with their values.
    static char line[4096];
    tovrin_counters_line(line, sizeof line);
    TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: counters %s\n", line);
}

}  // namespace

int tovrin_signals_init(void) {
    int rc = 0;
    rc |= vk_eloop_register_signal(SIGHUP, on_hangup, nullptr);
    rc |= vk_eloop_register_signal(SIGUSR1, on_usr1, nullptr);
    rc |= vk_eloop_register_signal(SIGUSR2, nullptr, nullptr);
    rc |= vk_eloop_register_signal(SIGPIPE, nullptr, nullptr);
    return rc == 0 ? 0 : -1;
}
