#pragma once
// Scoped environment variables and temporary directories for the
// platform tests, undone when they go out of scope.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace platform_test {

// Sets (or, with nullopt, unsets) a variable; restores the old state on exit.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const std::optional<std::string> &value) : name_(name) {
        if (const char *old = std::getenv(name)) old_ = old;
        set(value);
    }
    ~ScopedEnv() { set(old_); }

private:
    void set(const std::optional<std::string> &v) { v ? setenv(name_.c_str(), v->c_str(), 1) : unsetenv(name_.c_str()); }
    std::string name_;
    std::optional<std::string> old_;
};

// A fresh directory under $TMPDIR (or /tmp), removed with all it holds.
class TempDir {
public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "vkplat-XXXXXX").string()) {
        if (!mkdtemp(path_.data())) std::abort();  // nothing to test in
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &rel) const { return path_ + "/" + rel; }
    // Writes a file (creating its directories) relative to the directory.
    void write(const std::string &rel, const std::string &content) const {
        const std::filesystem::path p = path_ + "/" + rel;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p) << content;
    }

private:
    std::string path_;
};

}  // namespace platform_test
