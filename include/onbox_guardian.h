// The gate of onbox reporting: switches in the settings store, watched while running.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nk/io.h>
#include <nk/log.h>
#include <nk/setmgmt.h>

namespace nk::onbox {

// One condition of the gate, recomputed whenever one of its settings keys changes.
class Verdict {
public:
    Verdict(std::string name, const std::vector<std::string>& keys);
    virtual ~Verdict();
    Verdict(const Verdict&) = delete;
    Verdict& operator=(const Verdict&) = delete;

    // Puts the keys' descriptors in `epoll` and computes the first value.
    void attach(int epoll, nk::log::Channel channel);
    bool owns(int fd) const;
    // Takes the key's change notification off `fd` and recomputes.
    void on_readable(int fd);

    const std::string& name() const { return name_; }
    bool value() const { return value_; }
    std::string describe() const;

protected:
    virtual bool compute() const = 0;
    const std::vector<nk::setMgmt::MonitoredKey>& keys() const { return keys_; }
    nk::log::Channel channel() const { return channel_; }

private:
    std::string name_;
    std::vector<nk::setMgmt::MonitoredKey> keys_;
    std::vector<int> attached_;
    int epoll_ = -1;
    nk::log::Channel channel_;
    bool value_ = true;
};

class Guardian {
public:
    static Guardian& instance();
    // Opens the gate's log channel and epoll set and builds its verdicts; false on failure.
    bool init();
    void uninit();
    // The gate's own epoll descriptor, or -1 before init().
    int get_fd() const { return epoll_.get(); }
    // Serves whatever changed, without blocking.
    void read_fd();
    // The onbox feature is on and every verdict agrees.
    bool allows() const;

private:
    Guardian();
    Verdict* owner_of(int fd) const;
    std::string describe() const;

    nk::log::Channel channel_;
    nk::io::unique_fd epoll_;  // outlives the verdicts, which leave it when destroyed
    std::vector<std::unique_ptr<Verdict>> verdicts_;
};

}  // namespace nk::onbox
