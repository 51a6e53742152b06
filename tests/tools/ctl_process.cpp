#include "tests/tools/ctl_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "tests/emulator.h"

namespace ctltest {

namespace {

void drain(int fd, std::string &into) {
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) return;
        into.append(buf, static_cast<std::size_t>(n));
    }
}

}  // namespace

ctl_child::ctl_child(const std::vector<std::string> &args) {
    const std::vector<std::string> cmd = emulator::command(TOVRINCTL_BIN, args);
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        emulator::exec(cmd);
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    out_ = out[0];
    err_ = err[0];
}

ctl_child::~ctl_child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (err_ >= 0) ::close(err_);
}

std::optional<std::string> ctl_child::read_line(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (auto nl = out_buf_.find('\n'); nl != std::string::npos) {
            std::string line = out_buf_.substr(0, nl);
            out_buf_.erase(0, nl + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd p{out_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buf[512];
        ssize_t n = ::read(out_, buf, sizeof buf);
        if (n <= 0) return std::nullopt;
        out_buf_.append(buf, static_cast<std::size_t>(n));
    }
}

transcript_t ctl_child::finish(std::chrono::milliseconds timeout) {
    transcript_t t;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int ws = 0;
    while (::waitpid(pid_, &ws, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &ws, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    t.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : -1;
    t.out = std::move(out_buf_);
    drain(out_, t.out);
    drain(err_, t.err);
    return t;
}

transcript_t run_ctl(const std::vector<std::string> &args) {
    ctl_child c(args);
    return c.finish();
}

ipc_root::ipc_root() {
    char tmpl[] = "/tmp/tovrinctl-test-XXXXXX";
    if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp");
    dir_ = tmpl;
    ::setenv("VK_IPC_ROOT", dir_.c_str(), 1);
}

ipc_root::~ipc_root() {
    ::unsetenv("VK_IPC_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

}  // namespace ctltest
