#include "lan.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "temp_dir.h"
#include "wait.h"

namespace nk::test {

std::string Lan::unavailable(std::initializer_list<const char*> tools) {
    if (::geteuid() != 0)
        return "the simulated LAN needs root (network namespaces)";
    // Root in a container may still be refused namespaces.
    if (run_command("unshare --net --mount true 2>/dev/null") != 0)
        return "network namespaces are not available here";
    for (const char* tool : tools) {
        if (run_command(std::string("command -v ") + tool + " >/dev/null") != 0)
            return std::string(tool) + " is not installed (scripts/deps installs it)";
    }
    return {};
}

bool Lan::up(const std::string& args) {
    // Whatever part came up is taken down again.
    up_ = true;
    if (run("up " + args) != 0)
        return false;
    box_ = first_line("ns box");
    return !box_.empty();
}

void Lan::down() {
    if (!up_)
        return;
    up_ = false;
    EXPECT_EQ(run("down"), 0);
    if (box_.empty())
        return;
    const std::string prefix = box_.substr(0, box_.rfind('-'));
    std::string left;
    run_command("ip netns list | grep -c '^" + prefix + "-' || true", &left);
    EXPECT_EQ(left, "0\n") << "namespaces left behind";
}

std::string Lan::command(const std::string& args) const {
    return script_ + " --dir " + dir_ + " " + args;
}

int Lan::run(const std::string& args, std::string* out) const {
    return run_command(command(args) + (out ? "" : " >/dev/null"), out);
}

std::string Lan::first_line(const std::string& args) const {
    std::string out;
    run(args, &out);
    return out.substr(0, out.find('\n'));
}

std::string Lan::ipv4_of(const std::string& client) const {
    std::string ip;
    wait_until(
        [&] {
            ip = first_line(
                "exec " + client +
                " sh -c \"ip -4 -o addr show dev eth0 | awk '{print \\$4}' | cut -d/ -f1\"");
            return !ip.empty();
        },
        30s);
    return ip;
}

}  // namespace nk::test
