#include "test_broker.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <vector>

#include "daemon_process.h"
#include "temp_dir.h"
#include "wait.h"

namespace nk::test {

namespace {

bool accepts(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path.c_str(), sizeof(sa.sun_path) - 1);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
    ::close(fd);
    return ok;
}

// Root's broker would switch to its own account before making its socket, and could not make
// it in a root-owned scratch directory; so it starts as that account, allowed to write there.
std::vector<std::string> broker_command(const std::string& conf) {
    std::vector<std::string> command;
    if (::geteuid() == 0) {
        command = {NK_SETPRIV_BIN,
                   "--reuid=mosquitto",
                   "--regid=mosquitto",
                   "--init-groups",
                   "--inh-caps=+dac_override",
                   "--ambient-caps=+dac_override",
                   "--"};
    }
    command.insert(command.end(), {NK_MOSQUITTO_BIN, "-c", conf});
    return command;
}

}  // namespace

TestBroker::TestBroker(std::string dir) : dir_(std::move(dir)) {
    if (dir_.empty()) {
        own_dir_ = std::make_unique<TempDir>();
        dir_ = own_dir_->path();
    }
    socket_ = dir_ + "/nkex.sock";
}

TestBroker::~TestBroker() {
    stop();
}

bool TestBroker::write_config(const std::string& file) const {
    std::string command = std::string(NK_BROKER_CONFIG) + " '" + socket_ + "'";
    if (!accounts_dir_.empty()) {
        std::string ignored;
        if (run_command(std::string(NK_BUS_CREDENTIALS) + " '" + accounts_dir_ + "'", &ignored) !=
            0)
            return false;
        command += " '" + accounts_dir_ + "'";
    }
    std::string text;
    if (run_command(command, &text) != 0)
        return false;
    std::ofstream out(file, std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

bool TestBroker::start() {
    if (running())
        return true;
    const std::string conf = dir_ + "/mosquitto.conf";
    if (!write_config(conf))
        return false;
    ::unlink(socket_.c_str());
    process_ = std::make_unique<DaemonProcess>();
    // A broker that dies at once (a bad config) gives up the wait at once too.
    if (!process_->start(broker_command(conf)) ||
        !wait_until([&] { return process_->ended() || accepts(socket_); }) || process_->ended()) {
        stop();
        return false;
    }
    return true;
}

void TestBroker::stop() {
    if (!process_)
        return;
    process_->stop(SIGTERM, 3s);
    process_.reset();
    ::unlink(socket_.c_str());
}

bool TestBroker::restart() {
    stop();
    return start();
}

}  // namespace nk::test
