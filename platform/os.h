#pragma once
// Operating-system calls the daemon makes, behind one seam so the simulated
// platform can stand in for them. Same signatures and results as the C library.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>

int vk_os_socket(int domain, int type, int protocol);
int vk_os_bind(int fd, const struct sockaddr *addr, socklen_t len);
ssize_t vk_os_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *from, socklen_t *fromlen);
ssize_t vk_os_sendto(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to, socklen_t tolen);
// Several datagrams in one call, as sendmmsg and recvmmsg (without the receive
// timeout: the loop never waits in a receive). -1 with ENOSYS where the kernel
// or C library lacks them: the caller then goes one datagram at a time.
int vk_os_sendmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags);
int vk_os_recvmmsg(int fd, struct mmsghdr *msgs, unsigned int n, int flags);
int vk_os_close(int fd);
int vk_os_sysinfo(struct sysinfo *info);
time_t vk_os_time(time_t *t);
// Wall-clock seconds and milliseconds (what ftime gives).
struct vk_timeb {
    int64_t time;
    unsigned short millitm;
};
void vk_os_ftime(struct vk_timeb *tb);
void vk_os_srand(unsigned int seed);
int vk_os_rand(void);
void vk_os_syslog(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
