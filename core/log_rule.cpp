#include "core/log_rule.h"

#include <cstdarg>

#include "platform/os.h"

namespace {
// Every source module has a sub-module name printed first; none is ever set.
constexpr char submod_name[16] = {};

uint32_t counted(int n) { return n > 0 ? static_cast<uint32_t>(n) : 0; }
}  // namespace

void tovrin_log_write(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    if (log_file_name != nullptr) {
        // Size test before writing: the file exceeds the maximum by one line at most.
        if (cur_log_size > static_cast<uint32_t>(vk_log_conf_data[VK_LOG_W_MAXSIZE])) {
            std::fseek(log_file_name, 0, SEEK_SET);
            cur_log_size = 0;
        }
        vk_timeb tb{};
        vk_os_ftime(&tb);
        cur_log_size += counted(
            std::fprintf(log_file_name, "%s:%ld:%u: ", submod_name, static_cast<long>(tb.time), unsigned{tb.millitm}));
        va_list file_ap;
        va_copy(file_ap, ap);
        cur_log_size += counted(std::vfprintf(log_file_name, fmt, file_ap));
        va_end(file_ap);
        std::fflush(log_file_name);
    }
    if (vk_log_conf_data[VK_LOG_W_ECHO] != 0) {
        std::vprintf(fmt, ap);
        std::fflush(stdout);
    }
    va_end(ap);
}
