// The host names the leases report per MAC; a device first seen takes its name from here.
#pragma once

#include <string>
#include <unordered_map>

#include <nk/sockutl.h>

// The host name last reported for each MAC by the leases.
extern std::unordered_map<nk::sockutl::macaddr, std::string> g_hostnames;

// The MAC's host name, or "*" when the leases never named it.
std::string get_hostname(const nk::sockutl::macaddr& mac);
// Cuts trailing white space in place; returns the last isspace() result (0 when it stopped at
// another character).
int str_rtrim(char* str);
