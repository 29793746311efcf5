#include "test_broker.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <vector>

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
    const std::vector<std::string> command = broker_command(conf);
    std::vector<char*> argv;
    for (const std::string& arg : command)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    pid_ = pid;
    const bool up = wait_until([&] {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = 0;
            return true;  // died: give up at once
        }
        return accepts(socket_);
    });
    if (!up || pid_ == 0) {
        stop();
        return false;
    }
    return true;
}

void TestBroker::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    reap(pid_, 3s);
    pid_ = 0;
    ::unlink(socket_.c_str());
}

bool TestBroker::restart() {
    stop();
    return start();
}

}  // namespace nk::test
