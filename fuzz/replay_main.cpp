// Runs a fuzz target's entry point over files, or over every file of the
// directories given, without the fuzzing engine: the checked-in corpus then
// serves as a quick regression test in every build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i]))
            files.emplace_back(argv[i]);
        else
            for (const auto &e : std::filesystem::directory_iterator(argv[i]))
                if (e.is_regular_file()) files.push_back(e.path());
    }
    for (const auto &p : files) {
        std::ifstream f(p, std::ios::binary);
        if (!f) {
            std::fprintf(stderr, "cannot read %s\n", p.c_str());
            return 1;
        }
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
    // No input at all means the corpus went missing: that must not pass.
    return files.empty() ? 1 : 0;
}
