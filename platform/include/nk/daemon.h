// The daemon frame: common options, signals to a stop pipe, and the run function.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace nk::daemon {

class Instance {
public:
    // The read end of the stop pipe: readable once SIGTERM, SIGINT or SIGHUP arrived. -1 when
    // the pipe could not be made.
    int on_stop_pipe() const { return stop_pipe_[0]; }
    void set_run(std::function<int()> run) { run_ = std::move(run); }
    // Detaches unless -f was given, then calls the run function and returns its status.
    // After --help or --version (or a bad option) it returns without calling it.
    // Detaching forks: the calling process gets 0 back at once without running anything and
    // should just return it from main; the run function runs in the detached process (new
    // session, cwd /, stdio on /dev/null, logging to syslog), whose run() returns its status.
    // Start no threads before run(): they would not survive the fork.
    int run();

    bool foreground() const { return foreground_; }
    const std::string& name() const { return name_; }
    // Set when the options ask for no run (help, version: 0; a usage error: 64, EX_USAGE).
    int early_exit() const { return early_exit_; }

private:
    friend Instance& instance(int argc, char** argv, std::string_view name,
                              std::string_view synopsis);
    Instance() = default;
    bool parse(int argc, char** argv);
    bool apply_option(int opt, const char* value);
    bool usage_error();

    std::string name_;
    std::string synopsis_;
    std::function<int()> run_;
    int stop_pipe_[2] = {-1, -1};
    bool foreground_ = false;
    int early_exit_ = -1;
    int log_level_ = -1;  // from --log-level, -1 when not given
};

// Parses -f, --settings DIR, --devmgmt DIR, --broker ADDR, --log-level N, --help and
// --version (an option overrides its environment variable, which it sets for the process and
// its children), installs the signal handlers and ignores SIGPIPE. A usage error (unknown
// option, stray argument, empty or malformed value) is named on stderr with a short usage
// built from `synopsis`. One frame per process: later calls return the same frame and ignore
// their arguments.
Instance& instance(int argc, char** argv, std::string_view name,
                   std::string_view synopsis = "[options]");

// Tell a supervising systemd that the service is ready, or going down; nothing elsewhere.
void notify_ready();
void notify_stopping();

// What --log-level and --broker accept, for programs that parse their own options.
std::optional<int> parse_log_level(const char* text);
bool is_broker_address(std::string_view text);

// The option text shared by every program's --help.
std::string common_usage();

}  // namespace nk::daemon
