// The cloud emulator as a process of its own, driven through its operator commands.
#pragma once

#include <signal.h>

#include <string>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "daemon_process.h"
#include "temp_dir.h"

namespace nk::test {

class EmulatedCloud {
public:
    explicit EmulatedCloud(std::string db) : db_(std::move(db)) {}
    ~EmulatedCloud() { process.stop(SIGTERM); }

    // At log level 3 it logs every request, which requests_seen counts.
    bool start() {
        return process.start({NK_CLOUD_EMU_BIN, "-f", "--log-level", "3", "--db", db_, "serve"}) &&
               process.wait_for_line("cloud ready");
    }
    // An operator command's output ("add" gives the new device's id on its first line).
    std::string run(const std::string& args) {
        std::string out;
        EXPECT_EQ(run_command(fmt::format("{} --db {} {}", NK_CLOUD_EMU_BIN, db_, args), &out), 0)
            << args;
        return out;
    }
    std::string emu(const std::string& args) {
        const std::string out = run(args);
        return out.substr(0, out.find('\n'));
    }
    // Requests of a command the cloud has seen. `probe` sends a request with the text it is
    // given: once that shows in the log, every earlier line has been read.
    template <typename Probe>
    int requests_seen(const std::string& command, Probe probe) {
        const std::string marker = fmt::format("probe-{}", ++probes_);
        probe(marker);
        EXPECT_TRUE(process.wait_for_line('"' + marker + '"'));
        return process.count_lines("request " + command + " id=");
    }

    DaemonProcess process;

private:
    std::string db_;
    int probes_ = 0;
};

}  // namespace nk::test
