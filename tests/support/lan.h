// A LAN of the test's own: scripts/lan in network namespaces (needs root).
#pragma once

#include <initializer_list>
#include <string>
#include <utility>

namespace nk::test {

class Lan {
public:
    Lan(std::string script, std::string dir) : script_(std::move(script)), dir_(std::move(dir)) {}
    ~Lan() { down(); }
    Lan(const Lan&) = delete;
    Lan& operator=(const Lan&) = delete;

    // Why this host cannot run one (not root, no namespaces, a tool missing), or "".
    static std::string unavailable(std::initializer_list<const char*> tools);
    // `up ARGS`, then finds the box's namespace.
    bool up(const std::string& args = "");
    // Takes it down and checks that no namespace is left behind; once only.
    void down();
    std::string command(const std::string& args) const;
    // Its exit status; stdout to `out` when given, else dropped.
    int run(const std::string& args, std::string* out = nullptr) const;
    std::string first_line(const std::string& args) const;
    // A client's IPv4 address, once it has one ("" when none came in time).
    std::string ipv4_of(const std::string& client) const;

    const std::string& box() const { return box_; }
    const std::string& dir() const { return dir_; }

private:
    std::string script_;
    std::string dir_;
    std::string box_;
    bool up_ = false;
};

}  // namespace nk::test
