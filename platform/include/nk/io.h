// epoll helpers and a descriptor owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace nk::io {

// Adds fd for reading; adding one already in the set is not an error. 0 or -1.
int epoll_set_fd_ro(int set, int fd);
// Removes fd; removing one not in the set is not an error. 0 or -1.
int epoll_del_fd(int set, int fd);

// Owns one descriptor and closes it.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace nk::io
