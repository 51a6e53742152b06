#include "session/uptime.h"

#include "core/log_rule.h"
#include "platform/os.h"

uint32_t tovrin_uptime(const char *fn) {
    struct sysinfo info {};
    if (vk_os_sysinfo(&info) != 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: Failed to get uptime.\n", fn);
        return 0;
    }
    return static_cast<uint32_t>(info.uptime);
}
