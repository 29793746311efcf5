// Scratch directories and environment overrides that undo themselves.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace nk::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets (or with nullopt, unsets) one environment variable until destroyed.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Runs a command with /bin/sh, returns its exit status and fills `out` with its stdout.
int run_command(const std::string& command, std::string* out = nullptr);

// A setting written where the store keeps it (ROOT/KEY/.value), as an installer would, without
// the store's own code.
void write_setting(const std::string& root, const std::string& key, const std::string& value);

// Whether some line of the file holds every one of `parts`.
bool has_line_with(const std::string& file, const std::vector<std::string>& parts);

}  // namespace nk::test
