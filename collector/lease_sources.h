// The lease files the collector follows: watched with inotify, read whole, their faults logged
// once per content.
#pragma once

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <nk/io.h>

#include "lease.h"

namespace nk::collector {

class LeaseSources {
public:
    // False when inotify is not available (logged).
    bool open();
    int fd() const { return inotify_.get(); }

    // Takes the file list from the settings again and watches their directories, those that
    // appeared since included.
    void refresh();
    // Reads the pending events; true when one concerned a lease file.
    bool drain();

    // Every lease of every file; `torn` when a file ends inside a record.
    std::vector<Lease> read(std::time_t now, bool& torn);

private:
    void log_problems(const std::string& path, const std::string& text, const LeaseFile& file);

    nk::io::unique_fd inotify_;
    std::vector<std::string> paths_;
    std::map<int, std::string> watched_;         // watch descriptor to directory
    std::map<std::string, std::size_t> logged_;  // path to the hash of the text last logged
    std::set<std::string> unreadable_;           // paths whose read failure was logged
};

}  // namespace nk::collector
