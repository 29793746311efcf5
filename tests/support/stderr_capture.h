// Sends fd 2 into a pipe until text() is called, so a test can read the log lines it caused.
#pragma once

#include <string>

#include <nk/io.h>

namespace nk::test {

class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Restores stderr and returns everything written meanwhile (at most a pipe's worth).
    std::string text();

private:
    void restore();

    nk::io::unique_fd read_;
    nk::io::unique_fd saved_;
};

}  // namespace nk::test
