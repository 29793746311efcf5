#include "temp_dir.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace nk::test {

TempDir::TempDir() {
    path_ = std::filesystem::temp_directory_path() / "nktest.XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

static void set_env(const std::string& name, const std::optional<std::string>& value) {
    (void)(value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str()));
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str()))
        old_ = old;
    set_env(name_, value);
}

ScopedEnv::~ScopedEnv() {
    set_env(name_, old_);
}

int run_command(const std::string& command, std::string* out) {
    FILE* pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr)
        return -1;
    std::array<char, 4096> buf{};
    for (size_t n; (n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0;)
        if (out)
            out->append(buf.data(), n);
    const int status = ::pclose(pipe);
    return status < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void write_setting(const std::string& root, const std::string& key, const std::string& value) {
    std::filesystem::create_directories(root + key);
    std::ofstream(root + key + "/.value") << value;
}

bool has_line_with(const std::string& file, const std::vector<std::string>& parts) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const auto has = [&](const std::string& part) { return line.find(part) != line.npos; };
        if (std::all_of(parts.begin(), parts.end(), has))
            return true;
    }
    return false;
}

}  // namespace nk::test
