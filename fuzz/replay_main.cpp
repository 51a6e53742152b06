// Runs a fuzz target's entry point over files, or over every file of the
// directories given, without the fuzzing engine: the checked-in corpus then
// serves as a quick regression test in every build.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

namespace {
bool run_file(const std::filesystem::path &p) {
    std::ifstream f(p, std::ios::binary);
    if (!f) {
        std::fprintf(stderr, "cannot read %s\n", p.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}
}  // namespace

int main(int argc, char **argv) {
    int files = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto &e : std::filesystem::directory_iterator(arg))
                if (e.is_regular_file()) {
                    ok = run_file(e.path()) && ok;
                    ++files;
                }
        } else {
            ok = run_file(arg) && ok;
            ++files;
        }
    }
    std::printf("%d inputs replayed\n", files);
    // No input at all means the corpus went missing: that must not pass.
    return ok && files > 0 ? 0 : 1;
}
