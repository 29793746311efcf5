#include "interface_roles.h"

#include <algorithm>

#include <nk/constants.h>
#include <nk/setmgmt.h>

namespace nk::sniffer {

std::vector<std::string> lan_interfaces() {
    const nk::path roles(nk::kNetworkInterfacesKey);
    std::vector<std::string> names;
    if (nk::setMgmt::enumSubkeys(roles, names) < 0)
        return {};
    std::vector<std::string> lan;
    for (const std::string& name : names) {
        const std::string role = nk::setMgmt::getKeyValue(roles / name, "");
        if (role == "lan" || role == "guest")
            lan.push_back(name);
    }
    std::sort(lan.begin(), lan.end());
    return lan;
}

std::vector<std::string> split_interfaces(const std::string& list) {
    std::vector<std::string> names;
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        if (end > begin)
            names.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

}  // namespace nk::sniffer
