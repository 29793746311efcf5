// Faults a test can ask the emulated cloud for: late, failed, erroneous or lost answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nkemu {

enum class FaultKind {
    Delay,   // answer after `value` milliseconds
    Status,  // answer with bus status `value` and no data
    Error,   // answer with the error form, code `value` and err_data `text`
    Drop,    // no answer at all
};

struct Fault {
    std::int64_t id = 0;  // its row in the database; 0 when given on the command line
    FaultKind kind = FaultKind::Drop;
    std::int64_t value = 0;
    std::string text;
    std::string command;          // empty: every command
    std::int64_t remaining = -1;  // requests it still applies to; -1 without limit
};

std::string_view fault_kind_name(FaultKind kind);
std::optional<FaultKind> fault_kind_from_name(std::string_view name);

// "KIND[=VALUE][,command=NAME][,count=N][,text=TEXT]" (the text, last, may hold commas), e.g.
// "delay=1500,command=list_devices_v2,count=1". On failure `why` says what is wrong.
std::optional<Fault> parse_fault(std::string_view spec, std::string& why);
// The spec form again, for listings.
std::string format_fault(const Fault& fault);

bool fault_applies(const Fault& fault, std::string_view command);

// The first fault of `faults` that applies to `command`, using up one of its requests.
std::optional<Fault> take_fault(std::vector<Fault>& faults, std::string_view command);

}  // namespace nkemu
