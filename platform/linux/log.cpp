// Log library: the configuration record and the log stream. Linked into the
// simulated platform too, so it reaches the system through stdio and getenv only.
#include "platform/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

int32_t vk_log_conf_data[VK_LOG_CONF_WORDS] = {1, 0, 0, 0, 0, int32_t(VK_LOG_DEFAULT_MAXSIZE)};
FILE *log_file_name = nullptr;
uint32_t cur_log_size = 0;

namespace {

// $VK_LOG_LEVEL when it is a whole integer that fits the word, else fallback.
int32_t env_level(int32_t fallback) {
    const char *v = std::getenv("VK_LOG_LEVEL");
    if (!v || !*v) return fallback;
    errno = 0;
    char *end = nullptr;
    const long l = std::strtol(v, &end, 10);
    if (errno != 0 || *end != '\0' || l < INT32_MIN || l > INT32_MAX) return fallback;
    return int32_t(l);
}

std::string log_path(const char *module) {
    const char *dir = std::getenv("VK_LOG_DIR");
    std::string path = dir && *dir ? dir : "/var/log";
    path += '/';
    for (const char *c = module; *c; ++c) path += (*c >= 'A' && *c <= 'Z') ? char(*c - 'A' + 'a') : *c;
    path += ".log";
    return path;
}

}  // namespace

void VK_LOG_INIT(const char *module, int level, int echo) {
    vk_log_conf_data[0] = 1;
    vk_log_conf_data[1] = 0;
    vk_log_conf_data[VK_LOG_W_LEVEL] = env_level(level);
    vk_log_conf_data[VK_LOG_W_ECHO] = echo;
    vk_log_conf_data[4] = 0;
    vk_log_conf_data[VK_LOG_W_MAXSIZE] = int32_t(VK_LOG_DEFAULT_MAXSIZE);
    if (log_file_name) std::fclose(log_file_name);
    log_file_name = nullptr;
    cur_log_size = 0;
    if (!module) return;
    log_file_name = std::fopen(log_path(module).c_str(), "w");
}

void VK_LOG_GET_CFG(vk_ipc_msg_t *msg) {
    if (!msg) return;
    msg->len = VK_LOG_CFG_LEN;
    std::memcpy(msg->payload, vk_log_conf_data, VK_LOG_CFG_LEN);
}

void VK_LOG_SET_CFG(const uint8_t *payload) {
    if (!payload) return;
    int32_t w[VK_LOG_CONF_WORDS];
    std::memcpy(w, payload, VK_LOG_CFG_LEN);
    for (const int i : {VK_LOG_W_LEVEL, VK_LOG_W_ECHO, VK_LOG_W_MAXSIZE}) vk_log_conf_data[i] = w[i];
}
