// Logging: one fixed line template, per-channel levels, stderr or syslog.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace nk::log {

enum Level : int { ERROR = 0, WARN = 1, INFO = 2, DEBUG = 3, TRACE = 4 };

// The head every line starts with; print() overwrites it with time, pid and level.
inline constexpr std::string_view kTemplateHead = "yyyy-mm-dd HH:MM:SS.__m ___pid __lvl ";

// A registered channel. Channel 0 is the process's default one (its program name).
struct Channel {
    int id = 0;
};

// Journal: stderr is systemd's journal stream, which stamps time and pid itself and reads
// the level from a "<N>" prefix.
enum class Output { Stderr, Syslog, Journal };

// Whether stderr is the journal stream systemd handed this process (JOURNAL_STREAM).
bool stderr_is_journal();

// Names the default channel and picks the sink. The level comes from NK_LOG_LEVEL
// (default 2); "/log/levels/<channel>" in the settings store refines it per channel.
void init(std::string_view program, Output out = Output::Stderr);
void set_output(Output out);
void set_level(int level);

// Opens (or finds) a channel by name; empty when the name is empty or too many exist.
std::optional<Channel> open_channel(std::string_view name);
Channel default_channel();

bool can_log(Channel channel, int level);
inline bool can_log(int level) {
    return can_log(default_channel(), level);
}

// `text` begins with kTemplateHead (as produced by the NK_LOG macros).
void print(Channel channel, int level, std::string_view text);
inline void print(int level, std::string_view text) {
    print(default_channel(), level, text);
}

// Title followed by the compact JSON text.
void log_json(int level, std::string_view title, const json_t* json);

// Writes the calling thread's backtrace at ERROR level, one frame a line.
void backtrace(Channel channel);

// File name without its directories, for the [file:line] part.
constexpr const char* base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/')
            base = p + 1;
    }
    return base;
}

}  // namespace nk::log

// Formats only when the channel would print. `msg` must be a string literal.
#define NK_LOG_CH(channel, level, msg, ...)                                                        \
    do {                                                                                           \
        const ::nk::log::Channel nk_log_ch_ = (channel);                                           \
        const int nk_log_lvl_ = (level);                                                           \
        if (::nk::log::can_log(nk_log_ch_, nk_log_lvl_)) {                                         \
            ::nk::log::print(                                                                      \
                nk_log_ch_, nk_log_lvl_,                                                           \
                ::fmt::format(FMT_STRING("yyyy-mm-dd HH:MM:SS.__m ___pid __lvl "                   \
                                         "[{:s}:{:d}][{:s}()]: " msg),                             \
                              ::nk::log::base_name(__FILE__), __LINE__, __func__, ##__VA_ARGS__)); \
        }                                                                                          \
    } while (0)

#define NK_LOG(level, msg, ...) NK_LOG_CH(::nk::log::default_channel(), level, msg, ##__VA_ARGS__)
