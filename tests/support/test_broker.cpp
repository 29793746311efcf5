#include "test_broker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

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

std::string TestBroker::config_text(const std::string& socket_path) {
    std::string text = "listener 0 " + socket_path +
                       "\n"
                       "allow_anonymous true\n"
                       "persistence false\n"
                       "log_type error\n"
                       "log_type warning\n"
                       "log_dest stderr\n";
    if (::geteuid() == 0)
        text += "user root\n";
    return text;
}

bool TestBroker::start() {
    if (running())
        return true;
    const std::string conf = dir_ + "/mosquitto.conf";
    {
        std::ofstream out(conf, std::ios::trunc);
        out << config_text(socket_);
        if (!out)
            return false;
    }
    ::unlink(socket_.c_str());
    const pid_t pid = ::fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        ::execl(NK_MOSQUITTO_BIN, "mosquitto", "-c", conf.c_str(), static_cast<char*>(nullptr));
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
    int status = 0;
    if (!wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, 3s)) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = 0;
    ::unlink(socket_.c_str());
}

bool TestBroker::restart() {
    stop();
    return start();
}

}  // namespace nk::test
