#include "nk/util.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "nk/constants.h"
#include "nk/io.h"
#include "nk/log.h"
#include "nk/setmgmt.h"

namespace nk {

namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kMaxHostnameLen = 63;

int base64_value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

// Decodes one group of four characters, the last of which may carry padding.
bool decode_quad(std::string_view quad, bool last, std::string& out) {
    const std::size_t pad = quad[3] != '=' ? 0 : quad[2] != '=' ? 1 : 2;
    if (pad != 0 && !last)
        return false;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 4 - pad; ++i) {
        const int v = base64_value(quad[i]);
        if (v < 0)
            return false;
        bits = (bits << 6) | static_cast<std::uint32_t>(v);
    }
    bits <<= 6 * pad;
    out.push_back(static_cast<char>((bits >> 16) & 0xff));
    if (pad < 2)
        out.push_back(static_cast<char>((bits >> 8) & 0xff));
    if (pad < 1)
        out.push_back(static_cast<char>(bits & 0xff));
    return true;
}

// Length of the well-formed UTF-8 character at the start of `s`, or 0 when it is not one
// (overlong forms, surrogates and code points above U+10FFFF are not well formed).
std::size_t utf8_char_len(std::string_view s) {
    const auto b = [&s](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto cont = [&](std::size_t i) { return i < s.size() && (b(i) & 0xc0) == 0x80; };
    const unsigned char c = b(0);
    if (c < 0x80)
        return 1;
    if (c >= 0xc2 && c <= 0xdf)
        return cont(1) ? 2 : 0;
    if (c >= 0xe0 && c <= 0xef) {
        if (!cont(1) || !cont(2))
            return 0;
        if (c == 0xe0 && b(1) < 0xa0)
            return 0;  // overlong
        if (c == 0xed && b(1) >= 0xa0)
            return 0;  // surrogate
        return 3;
    }
    if (c >= 0xf0 && c <= 0xf4) {
        if (!cont(1) || !cont(2) || !cont(3))
            return 0;
        if (c == 0xf0 && b(1) < 0x90)
            return 0;  // overlong
        if (c == 0xf4 && b(1) >= 0x90)
            return 0;  // above U+10FFFF
        return 4;
    }
    return 0;
}

// C0 controls, DEL, and the C1 controls U+0080..U+009F (encoded as C2 80..C2 9F).
bool is_control(std::string_view ch) {
    const auto c = static_cast<unsigned char>(ch[0]);
    if (ch.size() == 1)
        return c < 0x20 || c == 0x7f;
    return ch.size() == 2 && c == 0xc2 && static_cast<unsigned char>(ch[1]) < 0xa0;
}

// Keeps only well-formed, non-control characters; stops before passing `limit` bytes.
std::string clean_utf8(std::string_view text, std::size_t limit) {
    std::string out;
    while (!text.empty()) {
        const std::size_t len = utf8_char_len(text);
        if (len == 0) {
            text.remove_prefix(1);
            continue;
        }
        const std::string_view ch = text.substr(0, len);
        text.remove_prefix(len);
        if (is_control(ch))
            continue;
        if (out.size() + len > limit)
            break;
        out.append(ch);
    }
    return out;
}

std::string_view trim_spaces(std::string_view s) {
    while (!s.empty() && s.front() == ' ')
        s.remove_prefix(1);
    while (!s.empty() && s.back() == ' ')
        s.remove_suffix(1);
    return s;
}

}  // namespace

std::optional<std::string> base64_decode(std::string_view text) {
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t at = 0; at < text.size(); at += 4) {
        if (!decode_quad(text.substr(at, 4), at + 4 == text.size(), out))
            return std::nullopt;
    }
    return out;
}

std::string base64_encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            const auto byte = i < n ? static_cast<unsigned char>(bytes[at + i]) : 0u;
            bits = (bits << 8) | byte;
        }
        for (std::size_t i = 0; i < 4; ++i) {
            out.push_back(i <= n ? kBase64Alphabet[(bits >> (18 - 6 * i)) & 0x3f] : '=');
        }
    }
    return out;
}

std::string extract_hostname(const std::string& raw) {
    const std::string_view host = std::string_view(raw).substr(0, raw.find('.'));
    // Trim before cutting to length so leading blanks do not use up the budget, and again
    // after, since the cut may leave a blank at the end.
    const std::string cleaned = clean_utf8(host, std::string::npos);
    return std::string(trim_spaces(clean_utf8(trim_spaces(cleaned), kMaxHostnameLen)));
}

bool is_interface_up(const std::string& name) {
    ifreq req{};
    if (name.empty() || name.size() >= sizeof(req.ifr_name))
        return false;
    if (name.find('\0') != std::string::npos)
        return false;
    const io::unique_fd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        NK_LOG(log::ERROR, "socket for interface flags failed: {:s}", std::strerror(errno));
        return false;
    }
    std::memcpy(req.ifr_name, name.data(), name.size());
    if (::ioctl(sock.get(), SIOCGIFFLAGS, &req) < 0) {
        NK_LOG(log::DEBUG, "SIOCGIFFLAGS {:s}: {:s}", name, std::strerror(errno));
        return false;
    }
    return (req.ifr_flags & IFF_UP) != 0;
}

int get_nkleases_mode() {
    return setMgmt::getKeyValue<int>(std::string(kLeasesModeKey), 0);
}

std::string common_path_kind1() {
    const char* dir = std::getenv(kLibexecDirEnv);
    if (dir != nullptr && *dir != '\0')
        return dir;
    std::array<char, 4096> exe{};
    const ssize_t n = ::readlink("/proc/self/exe", exe.data(), exe.size() - 1);
    if (n <= 0) {
        NK_LOG(log::ERROR, "readlink /proc/self/exe failed: {:s}", std::strerror(errno));
        return {};
    }
    const std::string path(exe.data(), static_cast<std::size_t>(n));
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    std::string exe_dir = slash == 0 ? "/" : path.substr(0, slash);
#if defined(NK_INSTALL_SBINDIR) && defined(NK_INSTALL_LIBEXECDIR)
    // Installed, the helpers live apart from the programs; in a build tree they sit beside them.
    if (exe_dir == NK_INSTALL_SBINDIR)
        return NK_INSTALL_LIBEXECDIR;
#endif
    return exe_dir;
}

long monotonic_seconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long>(ts.tv_sec);
}

}  // namespace nk
