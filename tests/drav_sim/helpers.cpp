#include "helpers.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

std::string hex_of(std::span<const uint8_t> b) {
    std::string s;
    for (uint8_t c : b) s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
    return s;
}

std::vector<uint8_t> bytes_of_hex(const std::string &hex) {
    std::vector<uint8_t> b;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return b;
}

std::vector<uint8_t> openssl(const std::string &args, std::span<const uint8_t> in, bool &ok) {
    char dir[] = "/tmp/dsim-test-XXXXXX";
    ok = ::mkdtemp(dir) != nullptr;
    if (!ok) return {};
    const std::string d = dir;
    std::ofstream(d + "/in", std::ios::binary).write(reinterpret_cast<const char *>(in.data()), std::streamsize(in.size()));
    const int st = std::system(("openssl " + args + " -out " + d + "/out <" + d + "/in 2>" + d + "/err").c_str());
    ok = WIFEXITED(st) && WEXITSTATUS(st) == 0;
    std::ifstream f(d + "/out", std::ios::binary);
    std::vector<uint8_t> out{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    std::filesystem::remove_all(d);
    return out;
}
