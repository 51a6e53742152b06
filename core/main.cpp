// The tovrin daemon: one process, one thread, one event loop.
#include <cstdlib>

#include "core/log_rule.h"
#include "core/startup.h"
#include "link/send_queue.h"
#include "platform/eloop.h"

int main(int /*argc*/, char ** /*argv*/) {
    VK_LOG_INIT("TOVRIN", 4, 0);
    vk_log_conf_data[VK_LOG_W_ECHO] = 0;
    TOVRIN_LOG(TOVRIN_LOG_DBG, ">>>%s\n", "main");
    vk_eloop_init(nullptr);
    tovrin_send_queue_configure(std::getenv("TOVRIN_SEND_QUEUE_MAX"));
    tovrin_init_struct();
    tovrin_vk_ipc_init();
    vk_eloop_run();
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "<<<%s Terminated???\n", "main");
    return 1;
}
