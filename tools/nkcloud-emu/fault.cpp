#include "fault.h"

#include <charconv>

#include <fmt/format.h>

#include "cloud_commands.h"

namespace nkemu {

namespace {

constexpr std::int64_t kDefaultStatus = 3;  // what the connector answers when it cannot deliver
constexpr std::int64_t kDefaultErrorCode = 500;
constexpr std::string_view kDefaultErrorText = "Internal server error";

std::optional<std::int64_t> parse_number(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0)
        return std::nullopt;
    return value;
}

std::string_view next_item(std::string_view& rest) {
    const std::size_t comma = rest.find(',');
    const std::string_view item = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    return item;
}

// Splits "key=value"; `has_value` tells "key=" from "key".
std::string_view split_item(std::string_view item, std::string_view& value, bool& has_value) {
    const std::size_t eq = item.find('=');
    has_value = eq != std::string_view::npos;
    value = has_value ? item.substr(eq + 1) : std::string_view();
    return item.substr(0, eq);
}

bool apply_kind(Fault& fault, std::string_view item, std::string& why) {
    std::string_view value;
    bool has_value = false;
    const std::optional<FaultKind> kind = fault_kind_from_name(split_item(item, value, has_value));
    if (!kind) {
        why = fmt::format("unknown fault kind '{}' (delay, status, error or drop)", item);
        return false;
    }
    fault.kind = *kind;
    fault.value = *kind == FaultKind::Status  ? kDefaultStatus
                  : *kind == FaultKind::Error ? kDefaultErrorCode
                                              : 0;
    if (*kind == FaultKind::Error)
        fault.text = kDefaultErrorText;
    if (*kind == FaultKind::Drop && has_value) {
        why = "drop takes no value";
        return false;
    }
    if (*kind == FaultKind::Delay && !has_value) {
        why = "delay needs milliseconds: delay=MS";
        return false;
    }
    if (!has_value)
        return true;
    const std::optional<std::int64_t> number = parse_number(value);
    if (!number) {
        why = fmt::format("'{}' is not a non-negative number", value);
        return false;
    }
    fault.value = *number;
    return true;
}

bool apply_option(Fault& fault, std::string_view item, std::string& why) {
    std::string_view value;
    bool has_value = false;
    const std::string_view key = split_item(item, value, has_value);
    if (!has_value || value.empty()) {
        why = fmt::format("'{}' wants key=value", item);
        return false;
    }
    if (key == "command") {
        if (value.substr(0, kCommandPrefix.size()) == kCommandPrefix)
            value.remove_prefix(kCommandPrefix.size());
        fault.command = std::string(value);
    } else if (key == "count") {
        const std::optional<std::int64_t> count = parse_number(value);
        if (!count || *count == 0) {
            why = fmt::format("count wants a positive number, not '{}'", value);
            return false;
        }
        fault.remaining = *count;
    } else {
        why = fmt::format("unknown fault option '{}' (command, count, then text last)", key);
        return false;
    }
    return true;
}

}  // namespace

std::string_view fault_kind_name(FaultKind kind) {
    switch (kind) {
        case FaultKind::Delay:
            return "delay";
        case FaultKind::Status:
            return "status";
        case FaultKind::Error:
            return "error";
        case FaultKind::Drop:
            return "drop";
    }
    return "drop";
}

std::optional<FaultKind> fault_kind_from_name(std::string_view name) {
    for (const FaultKind kind :
         {FaultKind::Delay, FaultKind::Status, FaultKind::Error, FaultKind::Drop}) {
        if (fault_kind_name(kind) == name)
            return kind;
    }
    return std::nullopt;
}

std::optional<Fault> parse_fault(std::string_view spec, std::string& why) {
    Fault fault;
    std::string_view rest = spec;
    if (!apply_kind(fault, next_item(rest), why))
        return std::nullopt;
    while (!rest.empty()) {
        // The text runs to the end of the fault, so that it may hold commas.
        if (rest.substr(0, 5) == "text=") {
            fault.text = std::string(rest.substr(5));
            break;
        }
        if (!apply_option(fault, next_item(rest), why))
            return std::nullopt;
    }
    if (fault.kind != FaultKind::Error && !fault.text.empty()) {
        why = "text belongs to error faults only";
        return std::nullopt;
    }
    return fault;
}

std::string format_fault(const Fault& fault) {
    std::string spec(fault_kind_name(fault.kind));
    if (fault.kind != FaultKind::Drop)
        spec += fmt::format("={}", fault.value);
    if (!fault.command.empty())
        spec += fmt::format(",command={}", fault.command);
    if (fault.remaining >= 0)
        spec += fmt::format(",count={}", fault.remaining);
    if (fault.kind == FaultKind::Error)
        spec += fmt::format(",text={}", fault.text);
    return spec;
}

bool fault_applies(const Fault& fault, std::string_view command) {
    return fault.remaining != 0 && (fault.command.empty() || fault.command == command);
}

std::optional<Fault> take_fault(std::vector<Fault>& faults, std::string_view command) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (!fault_applies(*it, command))
            continue;
        const Fault taken = *it;
        if (it->remaining > 0 && --it->remaining == 0)
            faults.erase(it);
        return taken;
    }
    return std::nullopt;
}

}  // namespace nkemu
