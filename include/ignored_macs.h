// MACs the user asked discovery to leave alone, as listed in the settings store.
#pragma once

#include <string>
#include <unordered_set>

// Every listed MAC text, as typed: comma-separated lists under the ignored-MACs key.
std::unordered_set<std::string> discovery_ignored_macs();
