// Sends fd 2 into a pipe until text() is called, so a test can read the log lines it caused.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include <nk/io.h>

namespace nk::test {

class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::runtime_error("pipe2");
        read_.reset(fds[0]);
        const nk::io::unique_fd write_end(fds[1]);
        saved_.reset(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        ::dup2(write_end.get(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Restores stderr and returns everything written meanwhile (at most a pipe's worth).
    std::string text() {
        restore();
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = ::read(read_.get(), buf, sizeof(buf))) > 0;)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore() {
        if (!saved_)
            return;
        std::fflush(stderr);
        ::dup2(saved_.get(), STDERR_FILENO);
        saved_.reset();
    }

    nk::io::unique_fd read_;
    nk::io::unique_fd saved_;
};

}  // namespace nk::test
