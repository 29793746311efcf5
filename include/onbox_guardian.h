// The gate of onbox reporting: a switch in the settings store, watched while running.
#pragma once

namespace nk::onbox {

class Guardian {
public:
    static Guardian& instance();
    bool init();
    void uninit();
    // The gate's own epoll descriptor, or -1.
    int get_fd() const;
    void read_fd();
    bool allows() const;

private:
    Guardian() = default;
};

}  // namespace nk::onbox
