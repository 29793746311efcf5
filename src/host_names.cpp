#include "host_names.h"

#include <cctype>
#include <cstring>

#include <nk/log.h>

std::unordered_map<nk::sockutl::macaddr, std::string> g_hostnames;

std::string get_hostname(const nk::sockutl::macaddr& mac) {
    const auto it = g_hostnames.find(mac);
    if (it == g_hostnames.end())
        return "*";
    NK_LOG(nk::log::TRACE, "box_detected_name={:s}", it->second);
    return it->second;
}

int str_rtrim(char* str) {
    if (str == nullptr)
        return 0;
    std::size_t length = std::strlen(str);
    int space = 0;
    while (length > 0 && (space = std::isspace(static_cast<unsigned char>(str[length - 1]))) != 0)
        str[--length] = '\0';
    return space;
}
