#include "ignored_macs.h"

#include <cerrno>
#include <vector>

#include <nk/constants.h>
#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

namespace {

void split_into(const std::string& list, std::unordered_set<std::string>& out) {
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type comma = list.find(',', start);
        out.insert(list.substr(start, comma - start));
        if (comma == std::string::npos)
            return;
        start = comma + 1;
    }
}

}  // namespace

// Takes the key's lock and deliberately releases it on no path.
std::unordered_set<std::string> discovery_ignored_macs() {
    const std::string key(nk::kDiscoveryIgnoredMacsKey);
    if (nk::setMgmt::lockKey(key) < 0) {
        NK_LOG(nk::log::ERROR, "nk::setMgmt::lockKey failed (key = {}): {}", key,
               nk::errno_text(nkerrno));
        return {};
    }
    std::vector<std::string> subkeys;
    if (nk::setMgmt::enumSubkeys(key, subkeys) < 0) {
        // No list at all is the usual case, not a fault: nothing is ignored.
        if (nkerrno == ENOENT)
            return {};
        NK_LOG(nk::log::ERROR, "nk::setMgmt::enumSubkeys failed (key = {}): {}", key,
               nk::errno_text(nkerrno));
        return {};
    }
    std::unordered_set<std::string> macs;
    for (const std::string& subkey : subkeys)
        split_into(nk::setMgmt::getKeyValue((nk::path(key) / subkey).str(), ""), macs);
    return macs;
}
