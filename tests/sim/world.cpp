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
    int fd = kFirstFd;  // the lowest free number, as the kernel hands them out
    while (world().sockets.count(fd)) ++fd;
    return fd <= kLastFd ? fd : -1;
}

Socket *find_socket(int fd) {
    auto it = world().sockets.find(fd);
    return it == world().sockets.end() ? nullptr : &it->second;
}

// Closing a receiver frees what waits in its queue; closing a sender leaves
// its datagrams queued but charged to nobody.
bool close_fd(int fd) {
    World &w = world();
    w.read_socks.erase(fd);
    w.write_socks.erase(fd);
    auto it = w.sockets.find(fd);
    if (it == w.sockets.end()) return false;
    for (const Pending &p : it->second.input) uncharge(p);
    w.sockets.erase(it);
    for (auto &[other, s] : w.sockets)
        for (Pending &p : s.input)
            if (p.charged_to == fd) p.charged_to = -1;
    return true;
}

void uncharge(const Pending &p) {
    if (p.charged_to < 0) return;
    if (Socket *from = find_socket(p.charged_to)) from->charged -= p.charge;
}

bool has_room(const Socket &from, const std::string &peer) {
    const Socket *to = find_socket(ipc_fd_of(peer));
    return from.charged < kIpcSendBudget && (!to || to->input.size() <= to->queue_len);
}

bool writable(int fd) {
    const Socket *s = find_socket(fd);
    return s && (!s->ipc || (!world().ipc_full.count(s->peer) && has_room(*s, s->peer)));
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
