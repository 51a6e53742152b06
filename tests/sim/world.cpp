// The one world every simulated service shares, and its reset.
#include "tests/sim/world.h"

#include <utility>

namespace sim {

World &world() {
    static World w;
    return w;
}

void reset() { world() = World{}; }

int alloc_fd() {
    // Lowest free number, as the kernel hands them out.
    int fd = kFirstFd;
    for (const auto &[used, s] : world().sockets) {
        if (used != fd) break;
        ++fd;
    }
    return fd <= kLastFd ? fd : -1;
}

Socket *find_socket(int fd) {
    auto it = world().sockets.find(fd);
    return it == world().sockets.end() ? nullptr : &it->second;
}

bool close_fd(int fd) {
    world().read_socks.erase(fd);
    return world().sockets.erase(fd) > 0;
}

void push_input(Socket &s, Pending p) {
    p.seq = world().next_seq++;
    s.input.push_back(std::move(p));
}

int ipc_fd_of(const std::string &path) {
    for (const auto &[fd, s] : world().sockets)
        if (s.ipc && s.path == path) return fd;
    return -1;
}

}  // namespace sim
