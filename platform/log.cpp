// Log library: the configuration record and the log stream. Linked into the
// simulated platform too: the log is a real file in both.
#include "platform/log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

int32_t vk_log_conf_data[VK_LOG_CONF_WORDS] = {VK_LOG_CONF_START[0], VK_LOG_CONF_START[1], VK_LOG_CONF_START[2],
                                               VK_LOG_CONF_START[3], VK_LOG_CONF_START[4], VK_LOG_CONF_START[5]};
FILE *log_file_name = nullptr;
uint32_t cur_log_size = 0;

namespace {

// The path of the open log, kept for a reopen; empty when none was set up.
char log_path_now[PATH_MAX];

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

// $VK_LOG_DIR/<module in lower case>.log into out; false when it does not fit.
bool make_log_path(const char *module, char (&out)[PATH_MAX]) {
    const char *dir = std::getenv("VK_LOG_DIR");
    if (!dir || !*dir) dir = "/var/log";
    const std::size_t d = std::strlen(dir), m = std::strlen(module);
    if (d + 1 + m + sizeof ".log" > sizeof out) return false;
    std::memcpy(out, dir, d);
    out[d] = '/';
    for (std::size_t i = 0; i < m; ++i) {
        const char c = module[i];
        out[d + 1 + i] = (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
    }
    std::memcpy(out + d + 1 + m, ".log", sizeof ".log");
    return true;
}

// Opens path without changing it and takes the exclusive lock. -1 when it
// cannot be opened or another live process holds the lock. The lock taken may
// be on a file just renamed away by its holder, so the name is checked again.
int open_locked(const char *path) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return -1;
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            close(fd);
            return -1;
        }
        struct stat held {
        }, named{};
        if (fstat(fd, &held) == 0 && stat(path, &named) == 0 && held.st_ino == named.st_ino &&
            held.st_dev == named.st_dev)
            return fd;
        close(fd);
    }
    return -1;
}

// Keeps a non-empty log of an earlier run as <path>.1 and returns a locked,
// empty log at path; -1 when none can be had. The earlier file stays locked
// until the new one is, so no other process slips in between.
int rotate_and_open(const char *path) {
    const int old = open_locked(path);
    if (old < 0) return -1;
    struct stat st {};
    if (fstat(old, &st) != 0 || st.st_size == 0) return old;
    char kept[PATH_MAX + 2];
    const std::size_t n = std::strlen(path);
    std::memcpy(kept, path, n);
    std::memcpy(kept + n, ".1", 3);
    if (rename(path, kept) != 0) {
        close(old);
        return -1;
    }
    const int fd = open_locked(path);
    close(old);
    // Truncated only once locked: a file someone else created there is theirs.
    if (fd >= 0 && ftruncate(fd, 0) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void close_log() {
    if (log_file_name) std::fclose(log_file_name);  // releases the lock
    log_file_name = nullptr;
    cur_log_size = 0;
}

FILE *stream_at_end(int fd) {
    if (fd < 0) return nullptr;
    const off_t end = lseek(fd, 0, SEEK_END);
    FILE *f = fdopen(fd, "w");
    if (!f) {
        close(fd);
        return nullptr;
    }
    cur_log_size = end > 0 ? uint32_t(end) : 0;
    return f;
}

}  // namespace

void VK_LOG_INIT(const char *module, int /*level*/, int echo) {
    vk_log_conf_data[0] = 1;
    vk_log_conf_data[1] = 0;
    vk_log_conf_data[VK_LOG_W_LEVEL] = env_level(VK_LOG_DEFAULT_LEVEL);
    vk_log_conf_data[VK_LOG_W_ECHO] = echo;
    vk_log_conf_data[4] = 0;
    vk_log_conf_data[VK_LOG_W_MAXSIZE] = int32_t(VK_LOG_DEFAULT_MAXSIZE);
    close_log();
    log_path_now[0] = '\0';
    if (!module || !make_log_path(module, log_path_now)) return;
    log_file_name = stream_at_end(rotate_and_open(log_path_now));
}

void VK_LOG_RESET(void) {
    std::memcpy(vk_log_conf_data, VK_LOG_CONF_START, sizeof vk_log_conf_data);
    log_file_name = nullptr;
    cur_log_size = 0;
    log_path_now[0] = '\0';
}

int VK_LOG_REOPEN(void) {
    if (log_path_now[0] == '\0') return -1;
    close_log();
    log_file_name = stream_at_end(open_locked(log_path_now));
    return log_file_name ? 0 : -1;
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
