#include "test_broker.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

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
// The change of account clears the parent-death signal, so it is set again after it.
std::vector<std::string> broker_command(const std::string& conf) {
    std::vector<std::string> command;
    if (::geteuid() == 0) {
        command = {NK_SETPRIV_BIN,
                   "--reuid=mosquitto",
                   "--regid=mosquitto",
                   "--init-groups",
                   "--inh-caps=+dac_override",
                   "--ambient-caps=+dac_override",
                   "--pdeathsig=KILL",
                   "--"};
    }
    command.insert(command.end(), {NK_MOSQUITTO_BIN, "-c", conf});
    return command;
}

}  // namespace

bool TestBroker::start() {
    if (running())
        return true;
    const std::string conf = dir_ + "/mosquitto.conf";
    const std::string accounts = accounts_dir_.empty() ? "" : " '" + accounts_dir_ + "'";
    if ((!accounts.empty() && run_command(NK_BUS_CREDENTIALS + accounts + " >/dev/null") != 0) ||
        run_command(NK_BROKER_CONFIG " '" + socket_ + "'" + accounts + " >'" + conf + "'") != 0)
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

}  // namespace nk::test
