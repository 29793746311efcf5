#include "nk/log.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nk/constants.h"
#include "nk/json.h"
#include "nk/setmgmt.h"

namespace nk::log {

namespace {

constexpr std::size_t kMaxChannels = 32;
constexpr std::array<std::string_view, 5> kLevelNames = {"ERROR", "WARN", "INFO", "DEBUG", "TRACE"};

struct ChannelInfo {
    std::string name;
    std::atomic<int> level{kLogLevelDefault};
};

struct State {
    std::mutex mutex;  // guards registration and output; levels are atomics
    std::array<ChannelInfo, kMaxChannels> channels;
    std::atomic<std::size_t> count{0};
    std::atomic<Output> output{Output::Stderr};
    int process_level = kLogLevelDefault;
    std::string syslog_ident;
};

State& state() {
    static State s;
    return s;
}

int level_from_env() {
    const char* text = std::getenv(kLogLevelEnv);
    if (text == nullptr || *text == '\0')
        return kLogLevelDefault;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*end != '\0' || value < 0 || value > TRACE)
        return kLogLevelDefault;
    return static_cast<int>(value);
}

// The process level, refined by "/log/levels/<channel>" when the store has it.
int level_for(std::string_view name, int process_level) {
    if (name.empty())
        return process_level;
    const int value =
        nk::setMgmt::getKeyValue((nk::path("/log/levels") / name).str(), process_level);
    return (value < ERROR || value > TRACE) ? process_level : value;
}

std::optional<Channel> find_channel_locked(const State& s, std::string_view name) {
    const std::size_t n = s.count.load();
    for (std::size_t i = 0; i < n; ++i) {
        if (s.channels[i].name == name)
            return Channel{static_cast<int>(i)};
    }
    return std::nullopt;
}

// Registers a channel with its level; the caller holds the mutex.
std::optional<Channel> add_channel_locked(State& s, std::string_view name, int level) {
    if (auto found = find_channel_locked(s, name))
        return found;
    const std::size_t n = s.count.load();
    if (n >= kMaxChannels)
        return std::nullopt;
    s.channels[n].name = std::string(name);
    s.channels[n].level = level;
    s.count = n + 1;
    return Channel{static_cast<int>(n)};
}

void ensure_default(State& s) {
    if (s.count.load() != 0)
        return;
    std::lock_guard lock(s.mutex);
    if (s.count.load() == 0) {
        s.process_level = level_from_env();
        add_channel_locked(s, "", s.process_level);
    }
}

std::string line_head(int level) {
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    std::tm tm{};
    ::localtime_r(&tv.tv_sec, &tm);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &tm);
    const std::string_view name =
        (level >= ERROR && level <= TRACE) ? kLevelNames[static_cast<std::size_t>(level)] : "?";
    return fmt::format("{:s}.{:03d} {:6d} {:>5s} ", date.data(), tv.tv_usec / 1000, ::getpid(),
                       name);
}

int syslog_priority(int level) {
    switch (level) {
        case ERROR:
            return LOG_ERR;
        case WARN:
            return LOG_WARNING;
        case INFO:
            return LOG_INFO;
        default:
            return LOG_DEBUG;
    }
}

}  // namespace

// The store is read without the log mutex held: it may itself log.
void init(std::string_view program, Output out) {
    State& s = state();
    ensure_default(s);
    const int process_level = level_from_env();
    std::vector<std::string> names;
    {
        std::lock_guard lock(s.mutex);
        s.process_level = process_level;
        s.channels[0].name = std::string(program);
        for (std::size_t i = 0; i < s.count.load(); ++i)
            names.push_back(s.channels[i].name);
    }
    std::vector<int> levels;
    for (const std::string& name : names)
        levels.push_back(level_for(name, process_level));
    std::lock_guard lock(s.mutex);
    for (std::size_t i = 0; i < levels.size(); ++i)
        s.channels[i].level = levels[i];
    s.output = out;
    if (out == Output::Syslog) {
        // openlog keeps the pointer, so the ident lives apart from the renamable channel name.
        ::closelog();
        s.syslog_ident = s.channels[0].name;
        ::openlog(s.syslog_ident.c_str(), LOG_PID, LOG_DAEMON);
    }
}

bool stderr_is_journal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr)
        return false;
    unsigned long long dev = 0;
    unsigned long long ino = 0;
    if (std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2)
        return false;
    struct stat st {};
    return ::fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

void set_output(Output out) {
    State& s = state();
    ensure_default(s);
    s.output = out;
}

void set_level(int level) {
    State& s = state();
    ensure_default(s);
    std::lock_guard lock(s.mutex);
    s.process_level = level;
    for (std::size_t i = 0; i < s.count.load(); ++i)
        s.channels[i].level = level;
}

std::optional<Channel> open_channel(std::string_view name) {
    if (name.empty())
        return std::nullopt;
    State& s = state();
    ensure_default(s);
    int process_level = kLogLevelDefault;
    {
        std::lock_guard lock(s.mutex);
        if (auto found = find_channel_locked(s, name))
            return found;
        process_level = s.process_level;
    }
    const int level = level_for(name, process_level);
    std::lock_guard lock(s.mutex);
    return add_channel_locked(s, name, level);
}

Channel default_channel() {
    return Channel{0};
}

bool can_log(Channel channel, int level) {
    State& s = state();
    ensure_default(s);
    if (channel.id < 0 || static_cast<std::size_t>(channel.id) >= s.count.load())
        return false;
    return level <= s.channels[static_cast<std::size_t>(channel.id)].level.load();
}

void print(Channel channel, int level, std::string_view text) {
    State& s = state();
    ensure_default(s);
    std::string line = line_head(level);
    // The caller's text starts with the template head; keep only what follows it.
    if (text.substr(0, kTemplateHead.size()) == kTemplateHead)
        text.remove_prefix(kTemplateHead.size());
    line.append(text);
    std::lock_guard lock(s.mutex);
    if (s.output.load() == Output::Syslog) {
        ::syslog(syslog_priority(level), "%s", line.c_str() + line.size() - text.size());
        return;
    }
    if (s.output.load() == Output::Journal) {
        const std::string entry = fmt::format("<{:d}>{:s}\n", syslog_priority(level), text);
        std::fwrite(entry.data(), 1, entry.size(), stderr);
        std::fflush(stderr);
        return;
    }
    (void)channel;
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void log_json(int level, std::string_view title, const json_t* json) {
    if (!can_log(default_channel(), level))
        return;
    print(default_channel(), level,
          fmt::format("{:s}{:s} {:s}", kTemplateHead, title, nk::json_dump_compact(json)));
}

void backtrace(Channel channel) {
    std::array<void*, 64> frames{};
    const int n = ::backtrace(frames.data(), static_cast<int>(frames.size()));
    std::unique_ptr<char*, decltype(&std::free)> symbols(::backtrace_symbols(frames.data(), n),
                                                         &std::free);
    if (!symbols)
        return;
    for (int i = 0; i < n; ++i) {
        print(channel, ERROR, fmt::format("{:s}  #{:d} {:s}", kTemplateHead, i, symbols.get()[i]));
    }
}

}  // namespace nk::log
