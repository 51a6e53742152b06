#pragma once
// Starting a built program from a test the way ctest starts the tests: through
// the emulator in $TOVRIN_TEST_EMULATOR (words separated by spaces, e.g.
// "qemu-s390x -L /") when the build is cross-compiled, directly otherwise.
// Without binfmt_misc a foreign binary cannot be exec'd on its own.
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace emulator {

// The command line that runs program with args: the emulator's words first when one is set.
inline std::vector<std::string> command(const std::string &program, const std::vector<std::string> &args) {
    std::vector<std::string> cmd;
    if (const char *e = std::getenv("TOVRIN_TEST_EMULATOR")) {
        std::istringstream words(e);
        for (std::string w; words >> w;) cmd.push_back(w);
    }
    cmd.push_back(program);
    cmd.insert(cmd.end(), args.begin(), args.end());
    return cmd;
}

// Replaces this (forked) process with cmd, found on PATH; returns only when that fails.
inline void exec(const std::vector<std::string> &cmd) {
    std::vector<char *> argv;
    for (const std::string &a : cmd) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
}

}  // namespace emulator
