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
    ScopedEnv(const char *name, std::optional<std::string> value) : name_(name) {
        if (const char *old = std::getenv(name)) old_ = old;
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_.c_str(), old_->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// A fresh directory under $TMPDIR (or /tmp), removed with all it holds.
class TempDir {
public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "vkplat-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();  // nothing to test in
        path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

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
