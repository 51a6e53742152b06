#pragma once
// Running the tovrinctl binary as a child and collecting its transcript.
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace ctltest {

struct transcript_t {
    int status = -1;  // exit status; -1 when it did not exit normally
    std::string out;
    std::string err;
};

// A running tovrinctl. Killed and reaped if still running when destroyed.
class ctl_child {
public:
    explicit ctl_child(const std::vector<std::string> &args);
    ctl_child(const ctl_child &) = delete;
    ctl_child &operator=(const ctl_child &) = delete;
    ~ctl_child();

    pid_t pid() const { return pid_; }
    // One line of standard output without its newline; nullopt on timeout or EOF.
    std::optional<std::string> read_line(std::chrono::milliseconds timeout);
    // Waits for the exit (killing the child after timeout) and takes the rest of
    // both streams.
    transcript_t finish(std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string out_buf_;
};

// tovrinctl with args, run to its end.
transcript_t run_ctl(const std::vector<std::string> &args);

// A private directory for VK_IPC_ROOT, removed with its contents when destroyed.
class ipc_root {
public:
    ipc_root();
    ipc_root(const ipc_root &) = delete;
    ipc_root &operator=(const ipc_root &) = delete;
    ~ipc_root();
    const std::string &dir() const { return dir_; }
    std::string file(const std::string &endpoint_path) const { return dir_ + endpoint_path; }

private:
    std::string dir_;
};

}  // namespace ctltest
