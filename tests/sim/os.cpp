// Clock, uptime, random numbers and syslog of the simulated machine.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/os.h"
#include "tests/sim/world.h"

namespace sim {

const std::vector<SyslogLine> &syslog_lines() { return world().syslog; }

void set_uptime(long seconds, bool fail) {
    world().uptime_s = seconds;
    world().uptime_at_us = world().now_us;
    world().uptime_fail = fail;
}

}  // namespace sim

using sim::world;

int vk_os_sysinfo(struct sysinfo *info) {
    if (world().uptime_fail || !info) return sim::fail(EFAULT);
    std::memset(info, 0, sizeof *info);
    info->uptime = world().uptime_s + static_cast<long>((world().now_us - world().uptime_at_us) / 1000000);
    info->mem_unit = 1;
    return 0;
}

time_t vk_os_time(time_t *t) {
    const time_t now = static_cast<time_t>(1700000000 + world().now_us / 1000000);  // a fixed epoch at time 0
    if (t) *t = now;
    return now;
}

void vk_os_ftime(struct vk_timeb *tb) {
    tb->time = vk_os_time(nullptr);
    tb->millitm = static_cast<unsigned short>(world().now_us / 1000 % 1000);
}

void vk_os_srand(unsigned int seed) { std::srand(seed); }

int vk_os_rand(void) { return std::rand(); }

void vk_os_syslog(int priority, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    const int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    world().syslog.push_back(sim::SyslogLine{world().now_us, priority, n >= 0 ? text : ""});
    std::free(text);
}
