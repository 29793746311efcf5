// A private Mosquitto broker on a unix socket in a scratch directory.
#pragma once

#include <memory>
#include <string>

#include "daemon_process.h"
#include "temp_dir.h"

namespace nk::test {

class TestBroker {
public:
    // Config and socket live in `dir`.
    explicit TestBroker(std::string dir) : dir_(std::move(dir)), socket_(dir_ + "/nkex.sock") {}
    ~TestBroker() { stop(); }

    // Makes the bus's accounts in `dir` (scripts/bus-credentials) at start: every client must
    // then log in, and may use only its own topics.
    void require_accounts(std::string dir) { accounts_dir_ = std::move(dir); }

    // Starts mosquitto and waits until its socket accepts connections.
    bool start();
    // SIGTERM, then reaps; a no-op when not running.
    void stop();
    bool running() const { return process_ != nullptr; }

    const std::string& socket_path() const { return socket_; }
    std::string address() const { return "unix:" + socket_; }

private:
    std::string dir_;
    std::string socket_;
    std::string accounts_dir_;
    std::unique_ptr<DaemonProcess> process_;
};

}  // namespace nk::test
