// The one world every simulated service shares, and its reset.
#include "tests/sim/world.h"

#include <utility>

namespace sim {

World &world() {
    static World w;
    return w;
}

void reset() { world() = World{}; }

int open_socket(Socket s) {
    int fd = kFirstFd;
    while (world().sockets.count(fd)) ++fd;
    if (fd > kLastFd) return fail(EMFILE);
    world().sockets[fd] = std::move(s);
    return fd;
}

Socket *find_socket(int fd) {
    auto it = world().sockets.find(fd);
    return it == world().sockets.end() ? nullptr : &it->second;
}

// Closing a sender leaves its datagrams queued but charged to nobody, so a
// socket that later gets its number starts with a whole budget.
bool close_fd(int fd) {
    World &w = world();
    w.read_socks.erase(fd);
    w.write_socks.erase(fd);
    if (!w.sockets.erase(fd)) return false;
    for (auto &[other, s] : w.sockets)
        for (Pending &p : s.input)
            if (p.charged_to == fd) p.charged_to = -1;
    return true;
}

bool has_room(int from, const std::string &peer) {
    std::size_t charged = 0;
    for (const auto &[fd, s] : world().sockets)
        for (const Pending &p : s.input)
            if (p.charged_to == from) charged += p.bytes.size() + kIpcDatagramOverhead;
    const Socket *to = find_socket(ipc_fd_of(peer));
    return charged < kIpcSendBudget && (!to || to->input.size() <= to->queue_len);
}

bool writable(int fd) {
    const Socket *s = find_socket(fd);
    return s && (!s->ipc || (!world().ipc_full[s->peer] && has_room(fd, s->peer)));
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
