#include "nbstat.h"

#include <array>

#include <fmt/format.h>
#include <nk/buffer_view.h>

namespace nk::collector::nbstat {

namespace {

constexpr std::uint16_t kTypeNbstat = 0x0021;
constexpr std::uint16_t kClassIn = 0x0001;
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kNameEntrySize = 18;  // 15 name bytes, the suffix, 2 flag bytes
constexpr std::uint16_t kFlagResponse = 0x8000;
constexpr std::uint16_t kNameGroup = 0x8000;
constexpr std::uint16_t kNameReleasing = 0x1000;
constexpr std::uint16_t kNameConflict = 0x0800;
// An answer has no questions; a few echoed ones are skipped, more are not an answer.
constexpr std::uint16_t kMaxQuestions = 4;

std::optional<std::uint16_t> read16(nk::buffer_view& in) {
    const std::optional<const std::uint8_t*> p = in.readn<std::uint8_t>(2);
    if (!p)
        return std::nullopt;
    return static_cast<std::uint16_t>((*p)[0] << 8 | (*p)[1]);
}

std::optional<std::uint32_t> read32(nk::buffer_view& in) {
    const std::optional<std::uint16_t> high = read16(in);
    const std::optional<std::uint16_t> low = high ? read16(in) : std::nullopt;
    if (!low)
        return std::nullopt;
    return static_cast<std::uint32_t>(*high) << 16 | *low;
}

// Steps over an encoded domain name: labels up to an empty one, or a compression pointer.
bool skip_name(nk::buffer_view& in) {
    std::size_t total = 0;
    for (;;) {
        const std::optional<std::uint8_t> length = in.read<std::uint8_t>();
        if (!length)
            return false;
        if ((*length & 0xc0) == 0xc0)
            return in.read<std::uint8_t>().has_value();
        if (*length > 63)
            return false;
        if (*length == 0)
            return true;
        total += *length + 1u;
        if (total > 255 || !in.readn<std::uint8_t>(*length))
            return false;
    }
}

bool skip_questions(nk::buffer_view& in, std::uint16_t count) {
    for (std::uint16_t i = 0; i < count; ++i) {
        if (!skip_name(in) || !in.readn<std::uint8_t>(4))
            return false;
    }
    return true;
}

std::string printable_name(const std::uint8_t* bytes) {
    std::size_t length = 15;
    while (length > 0 && (bytes[length - 1] == ' ' || bytes[length - 1] == '\0'))
        --length;
    std::string name;
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint8_t c = bytes[i];
        name.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.');
    }
    return name;
}

std::vector<Name> read_names(nk::buffer_view& rdata, std::uint8_t count) {
    std::vector<Name> names;
    names.reserve(count);
    for (std::uint8_t i = 0; i < count; ++i) {
        const std::uint8_t* entry = *rdata.readn<std::uint8_t>(kNameEntrySize);
        const auto flags = static_cast<std::uint16_t>(entry[16] << 8 | entry[17]);
        names.push_back(Name{printable_name(entry), entry[15], (flags & kNameGroup) != 0,
                             (flags & (kNameReleasing | kNameConflict)) == 0});
    }
    return names;
}

std::optional<NodeStatus> fail(std::string& why, std::string text) {
    why = std::move(text);
    return std::nullopt;
}

}  // namespace

std::vector<std::uint8_t> query(std::uint16_t transaction_id) {
    std::vector<std::uint8_t> packet = {
        static_cast<std::uint8_t>(transaction_id >> 8),
        static_cast<std::uint8_t>(transaction_id & 0xff),
        0x00,
        0x00,  // a query, unicast, no recursion
        0x00,
        0x01,  // one question
        0x00,
        0x00,
        0x00,
        0x00,
        0x00,
        0x00,
        0x20,  // the 16 bytes of "*" and its NUL padding, each as two letters
    };
    std::array<std::uint8_t, 16> name{};
    name[0] = '*';
    for (const std::uint8_t c : name) {
        packet.push_back(static_cast<std::uint8_t>('A' + (c >> 4)));
        packet.push_back(static_cast<std::uint8_t>('A' + (c & 0x0f)));
    }
    for (const std::uint8_t b : {0x00, 0x00, 0x21, 0x00, 0x01})
        packet.push_back(b);
    return packet;
}

std::optional<NodeStatus> parse(const std::uint8_t* data, std::size_t size, std::string& why) {
    if (size < kHeaderSize)
        return fail(why, fmt::format("{:d} bytes, shorter than a header", size));
    if (size > 0xffff)
        return fail(why, fmt::format("{:d} bytes, longer than a datagram", size));
    nk::buffer_view in(data, static_cast<std::uint32_t>(size));
    NodeStatus status;
    status.transaction_id = *read16(in);
    const std::uint16_t flags = *read16(in);
    const std::uint16_t questions = *read16(in);
    const std::uint16_t answers = *read16(in);
    in.pos += 4;  // authority and additional records: nothing of them is read
    if ((flags & kFlagResponse) == 0 || ((flags >> 11) & 0x0f) != 0)
        return fail(why, fmt::format("not a query answer (flags {:#06x})", flags));
    if ((flags & 0x0f) != 0)
        return fail(why, fmt::format("error answer (code {:d})", flags & 0x0f));
    if (answers == 0)
        return fail(why, "no answer record");
    if (questions > kMaxQuestions || !skip_questions(in, questions))
        return fail(why, fmt::format("{:d} questions that do not fit", questions));
    if (!skip_name(in))
        return fail(why, "the answer's name runs past the end");
    const std::optional<std::uint16_t> type = read16(in);
    const std::optional<std::uint16_t> klass = type ? read16(in) : std::nullopt;
    const std::optional<std::uint32_t> ttl = klass ? read32(in) : std::nullopt;
    const std::optional<std::uint16_t> rdlength = ttl ? read16(in) : std::nullopt;
    if (!rdlength)
        return fail(why, "the answer record is cut short");
    if (*type != kTypeNbstat || *klass != kClassIn)
        return fail(why, fmt::format("record of type {:#06x} class {:#06x}, not a node status",
                                     *type, *klass));
    std::optional<nk::buffer_view> rdata = in.sub(*rdlength);
    if (!rdata)
        return fail(why, fmt::format("its length {:d} is past the {:d} bytes left", *rdlength,
                                     in.remaining()));
    const std::optional<std::uint8_t> count = rdata->read<std::uint8_t>();
    if (!count)
        return fail(why, "no name count");
    if (rdata->remaining() < *count * kNameEntrySize)
        return fail(why,
                    fmt::format("{:d} names do not fit in its length {:d}", *count, *rdlength));
    status.names = read_names(*rdata, *count);
    // The statistics that follow begin with the unit's MAC; many hosts give zeros.
    if (rdata->remaining() >= 6)
        status.mac = sockutl::macaddr(*rdata);
    return status;
}

std::string service_of(std::uint8_t suffix, bool group) {
    if (group) {
        switch (suffix) {
            case 0x00:
                return "domain name";
            case 0x01:
                return "master browser";
            case 0x1c:
                return "domain controllers";
            case 0x1e:
                return "browser elections";
            default:
                break;
        }
    } else {
        switch (suffix) {
            case 0x00:
                return "workstation";
            case 0x03:
                return "messenger";
            case 0x06:
                return "remote access server";
            case 0x1b:
                return "domain master browser";
            case 0x1d:
                return "master browser";
            case 0x1f:
                return "network dde";
            case 0x20:
                return "file server";
            case 0x21:
                return "remote access client";
            case 0xbe:
                return "network monitor agent";
            case 0xbf:
                return "network monitor application";
            default:
                break;
        }
    }
    return fmt::format("<{:02x}>", suffix);
}

namespace {

// The first usable name that `pick` accepts, in the order of the suffixes given.
template <typename Pick>
const Name* first_of(const NodeStatus& status, std::initializer_list<int> suffixes, Pick pick) {
    for (const int suffix : suffixes) {
        for (const Name& n : status.names) {
            if (n.usable && pick(n) && (suffix < 0 || n.suffix == suffix))
                return &n;
        }
    }
    return nullptr;
}

}  // namespace

std::optional<Table> table_of(const NodeStatus& status) {
    // The host's own name: its workstation name, else its server's, else any unique one.
    const Name* host = first_of(status, {0x00, 0x20, -1}, [](const Name& n) { return !n.group; });
    if (host == nullptr)
        return std::nullopt;
    // Its workgroup or domain; the browsers' shared name "\x01\x02__MSBROWSE__\x02" is none.
    const Name* domain = first_of(status, {0x00, 0x1c, 0x1e},
                                  [](const Name& n) { return n.group && n.suffix != 0x01; });
    Table table{host->name, domain != nullptr ? domain->name : std::string(), {}};
    for (const Name& n : status.names) {
        if (n.usable)
            table.services.emplace(n.name, service_of(n.suffix, n.group));
    }
    return table;
}

}  // namespace nk::collector::nbstat
