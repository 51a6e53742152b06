// The tovrin daemon: one process, one thread, one event loop.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log_rule.h"
#include "core/out_of_memory.h"
#include "core/signals.h"
#include "core/startup.h"
#include "platform/eloop.h"
#include "tovrin_version.h"

namespace {

const char help_text[] =
    "usage: tovrin [--version | --help]\n"
    "The access point's link daemon. It takes no other arguments: local daemons\n"
    "configure it over IPC at run time (see tovrinctl(1)). It reads VK_IPC_ROOT,\n"
    "VK_LOG_DIR, VK_LOG_LEVEL, VK_NODE_VAP_MAC, VK_NODE_VAP_IFACE, VK_NODE_SERIAL,\n"
    "VK_NODE_SERIAL_FILE and TOVRIN_SEND_QUEUE_MAX; see tovrin(8).\n";

// --version and --help print and end the process before anything is opened;
// any other argument is ignored, as the daemon has no command line.
void answer_info_options(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            std::fputs("tovrin " TOVRIN_VERSION "\n", stdout);
            std::exit(0);
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(help_text, stdout);
            std::exit(0);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    answer_info_options(argc, argv);
    VK_LOG_INIT("TOVRIN", 4, 0);
    vk_log_conf_data[VK_LOG_W_ECHO] = 0;
    tovrin_catch_allocation_failure();
    TOVRIN_LOG(TOVRIN_LOG_DBG, ">>>%s\n", "main");
    vk_eloop_init(nullptr);
    tovrin_signals_init();
    tovrin_start(std::getenv("TOVRIN_SEND_QUEUE_MAX"));
    vk_eloop_run();
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "<<<%s Terminated???\n", "main");
    return 1;
}
