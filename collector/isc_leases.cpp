#include "isc_leases.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace nk::collector {

namespace {

struct Token {
    enum Kind { Word, String, Open, Close, End, Eof } kind = Eof;
    std::string text;
    int line = 0;
};

// Words, quoted strings (with dhcpd's octal escapes), braces and semicolons; '#' comments.
class Lexer {
public:
    explicit Lexer(std::string_view text) : text_(text) {}

    Token next() {
        skip_blanks_and_comments();
        Token token;
        token.line = line_;
        if (at_ == text_.size())
            return token;
        const char c = text_[at_];
        if (c == '{' || c == '}' || c == ';') {
            ++at_;
            token.kind = c == '{' ? Token::Open : c == '}' ? Token::Close : Token::End;
            return token;
        }
        if (c == '"')
            return quoted(token);
        token.kind = Token::Word;
        while (at_ < text_.size() && !is_delimiter(text_[at_]))
            token.text.push_back(text_[at_++]);
        return token;
    }

private:
    static bool is_delimiter(char c) {
        return std::isspace(static_cast<unsigned char>(c)) || c == '{' || c == '}' || c == ';' ||
               c == '"' || c == '#';
    }

    void skip_blanks_and_comments() {
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (c == '#') {
                while (at_ < text_.size() && text_[at_] != '\n')
                    ++at_;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                line_ += c == '\n';
                ++at_;
            } else {
                return;
            }
        }
    }

    // An unterminated string reads as the end of the text: the writer is not done.
    Token quoted(Token& token) {
        ++at_;
        while (at_ < text_.size() && text_[at_] != '"') {
            char c = text_[at_++];
            line_ += c == '\n';
            if (c == '\\' && at_ < text_.size())
                c = escaped();
            token.text.push_back(c);
        }
        if (at_ == text_.size())
            return Token{Token::Eof, {}, token.line};
        ++at_;
        token.kind = Token::String;
        return token;
    }

    char escaped() {
        int value = 0;
        int digits = 0;
        while (digits < 3 && at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '7') {
            value = value * 8 + (text_[at_++] - '0');
            ++digits;
        }
        return digits > 0 ? static_cast<char>(value & 0xff) : text_[at_++];
    }

    std::string_view text_;
    std::size_t at_ = 0;
    int line_ = 1;
};

// A statement: its tokens and what ended it (End, Open, Close or Eof).
struct Statement {
    std::vector<Token> tokens;
    Token::Kind ended_by = Token::Eof;
};

Statement read_statement(Lexer& lexer) {
    Statement st;
    for (Token t = lexer.next();; t = lexer.next()) {
        if (t.kind == Token::Word || t.kind == Token::String) {
            st.tokens.push_back(std::move(t));
            continue;
        }
        st.ended_by = t.kind;
        return st;
    }
}

// Skips the rest of a block whose '{' was read; false when the text ends first.
bool skip_block(Lexer& lexer) {
    int depth = 1;
    while (depth > 0) {
        const Token t = lexer.next();
        if (t.kind == Token::Eof)
            return false;
        depth += t.kind == Token::Open ? 1 : t.kind == Token::Close ? -1 : 0;
    }
    return true;
}

struct Binding {
    Lease lease;
    std::string state;  // empty: the journal names none (old servers), taken as active
    bool ends_known = false;
    std::time_t ends = 0;
    bool ends_never = false;
    int line = 0;
};

bool is_number(const std::string& s, std::size_t max_digits) {
    if (s.empty() || s.size() > max_digits)
        return false;
    for (const char c : s) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

// "W YYYY/MM/DD HH:MM:SS" in UTC.
std::optional<std::time_t> utc_time(const std::string& date, const std::string& time) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    char tail = 0;
    if (std::sscanf(date.c_str(), "%4d/%2d/%2d%c", &y, &mo, &d, &tail) != 3 ||
        std::sscanf(time.c_str(), "%2d:%2d:%2d%c", &h, &mi, &s, &tail) != 3) {
        return std::nullopt;
    }
    if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60 || h < 0 ||
        mi < 0 || s < 0) {
        return std::nullopt;
    }
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return ::timegm(&tm);
}

void read_ends(const std::vector<Token>& t, Binding& b) {
    if (t.size() == 2 && t[1].text == "never") {
        b.ends_known = b.ends_never = true;
    } else if (t.size() >= 3 && t[1].text == "epoch" && is_number(t[2].text, 18)) {
        b.ends_known = true;
        b.ends = static_cast<std::time_t>(std::stoll(t[2].text));
    } else if (t.size() == 4) {
        if (const std::optional<std::time_t> ends = utc_time(t[2].text, t[3].text)) {
            b.ends_known = true;
            b.ends = *ends;
        }
    }
}

// A uid is a quoted string, or colon-separated hex from older servers.
void read_uid(const Token& token, Binding& b) {
    if (token.kind == Token::String) {
        b.lease.client_id = token.text;
    } else if (const std::optional<std::string> bytes = hex_bytes(token.text)) {
        b.lease.client_id = *bytes;
    }
}

void read_lease_statement(const std::vector<Token>& t, Binding& b) {
    if (t.empty())
        return;
    const std::string& name = t[0].text;
    if (name == "hardware" && t.size() == 3 && t[1].text == "ethernet") {
        b.lease.mac = sockutl::macaddr(t[2].text);
    } else if (name == "uid" && t.size() == 2) {
        read_uid(t[1], b);
    } else if (name == "client-hostname" && t.size() == 2 && t[1].kind == Token::String) {
        b.lease.host = t[1].text;
    } else if (name == "binding" && t.size() == 3 && t[1].text == "state") {
        b.state = t[2].text;
    } else if (name == "ends") {
        read_ends(t, b);
    }
}

// The statements of a lease block, up to its '}'; false when the text ends first.
bool read_lease_block(Lexer& lexer, Binding& b) {
    for (;;) {
        Statement st = read_statement(lexer);
        switch (st.ended_by) {
            case Token::End:
                read_lease_statement(st.tokens, b);
                break;
            case Token::Open:
                if (!skip_block(lexer))
                    return false;
                break;
            case Token::Close:
                return true;
            default:
                return false;
        }
    }
}

bool is_current(const Binding& b, std::time_t now) {
    if (!b.state.empty() && b.state != "active")
        return false;
    return !b.ends_known || b.ends_never || b.ends > now;
}

}  // namespace

bool looks_like_isc(std::string_view text) {
    Lexer lexer(text);
    const Statement st = read_statement(lexer);
    if (st.tokens.empty())
        return false;
    const std::string& first = st.tokens[0].text;
    return first == "lease" || first == "authoring-byte-order" || first == "server-duid" ||
           first == "failover" || first == "host";
}

LeaseFile read_isc_leases(std::string_view text, std::time_t now) {
    LeaseFile out;
    // The journal's later blocks of an address replace its earlier ones.
    std::map<sockutl::address, Binding> last;
    Lexer lexer(text);
    for (;;) {
        Statement st = read_statement(lexer);
        const int line = st.tokens.empty() ? 0 : st.tokens[0].line;
        if (st.ended_by == Token::Eof) {
            out.torn = !st.tokens.empty();
            break;
        }
        if (st.ended_by == Token::Close) {
            out.problems.push_back({line, "unexpected '}'"});
            continue;
        }
        if (st.ended_by != Token::Open)
            continue;  // a statement of the server's own
        const bool is_lease = st.tokens.size() == 2 && st.tokens[0].text == "lease";
        if (!is_lease) {
            if (!skip_block(lexer)) {
                out.torn = true;
                break;
            }
            continue;
        }
        Binding b;
        b.line = line;
        b.lease.ip = sockutl::address(st.tokens[1].text);
        if (!read_lease_block(lexer, b)) {
            out.torn = true;
            break;
        }
        if (!b.lease.ip.is_v4()) {
            out.problems.push_back({line, "bad IPv4 address"});
            continue;
        }
        last[b.lease.ip] = std::move(b);
    }
    for (auto& [ip, b] : last) {
        if (!is_current(b, now))
            continue;
        if (!b.lease.mac.is_valid()) {
            out.problems.push_back({b.line, "no Ethernet hardware address"});
            continue;
        }
        out.leases.push_back(std::move(b.lease));
    }
    return out;
}

}  // namespace nk::collector
