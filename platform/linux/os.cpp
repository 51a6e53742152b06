// Operating-system calls, passed straight to the C library.
#include "platform/os.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>

int vk_os_socket(int domain, int type, int protocol) { return socket(domain, type, protocol); }

int vk_os_bind(int fd, const struct sockaddr *addr, socklen_t len) { return bind(fd, addr, len); }

// Receives and sends never block, whatever the socket's mode: the loop must not stall.
ssize_t vk_os_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen) {
    return recvfrom(fd, buf, len, flags | MSG_DONTWAIT, from, fromlen);
}

ssize_t vk_os_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen) {
    return sendto(fd, buf, len, flags | MSG_DONTWAIT | MSG_NOSIGNAL, to, tolen);
}

int vk_os_sendmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags) {
    return sendmmsg(fd, msgs, n, flags | MSG_DONTWAIT | MSG_NOSIGNAL);
}

int vk_os_recvmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags) {
    return recvmmsg(fd, msgs, n, flags | MSG_DONTWAIT, nullptr);
}

int vk_os_close(int fd) { return close(fd); }

int vk_os_sysinfo(struct sysinfo *info) { return sysinfo(info); }

time_t vk_os_time(time_t *t) { return time(t); }

void vk_os_ftime(struct vk_timeb *tb) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tb->time = ts.tv_sec;
    tb->millitm = (unsigned short)(ts.tv_nsec / 1000000);
}

void vk_os_srand(unsigned int seed) { srand(seed); }

int vk_os_rand(void) { return rand(); }

// No openlog: the C library's defaults (program name, LOG_USER) are what is wanted.
void vk_os_syslog(int priority, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
}
