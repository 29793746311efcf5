// Minimal reader until the store lands.
#include "nk/setmgmt.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "nk/constants.h"
#include "nk/nkerrno.h"

namespace nk::setMgmt {

std::string root() {
    const char* dir = std::getenv(kSettingsDirEnv);
    return (dir && *dir) ? dir : kSettingsDirDefault;
}

int getKey(const std::string& key, std::string& out) {
    std::ifstream in(root() + key + "/.value");
    if (!in) {
        nk::_set_nkerrno(ENOENT);
        return -1;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return 0;
}

std::string getKeyValue(const std::string& key, const std::string& def) {
    std::string v;
    return getKey(key, v) < 0 ? def : v;
}

}  // namespace nk::setMgmt

namespace nk {
path path::operator/(std::string_view piece) const {
    path p(*this);
    p /= piece;
    return p;
}
path& path::operator/=(std::string_view piece) {
    if (key_.empty() || key_.back() != '/') key_.push_back('/');
    key_.append(piece);
    return *this;
}
}  // namespace nk
