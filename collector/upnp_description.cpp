#include "upnp_description.h"

#include <expat.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include "printable.h"

namespace nk::collector::upnp {

namespace {

constexpr std::size_t kMaxDepth = 32;

constexpr std::string_view kFields[] = {
    "deviceType",       "friendlyName", "manufacturer", "manufacturerURL",
    "modelDescription", "modelName",    "modelNumber",  "modelURL",
    "serialNumber",     "UDN",          "UPC",          "presentationURL",
};

struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<XML_ParserStruct, ParserFree>;

// A name without its namespace prefix: devices prefix their elements in many ways.
std::string_view local_name(const XML_Char* name) {
    const std::string_view full(name);
    const std::size_t colon = full.rfind(':');
    return colon == std::string_view::npos ? full : full.substr(colon + 1);
}

bool is_field(std::string_view name) {
    return std::find(std::begin(kFields), std::end(kFields), name) != std::end(kFields);
}

// Cuts after at most `max` bytes without splitting a UTF-8 sequence (expat gives valid UTF-8).
void cut(std::string& text, std::size_t max) {
    if (text.size() <= max)
        return;
    std::size_t end = max;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)
        --end;
    text.resize(end);
}

std::string trimmed(const std::string& s) {
    const std::size_t first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

class Reader {
public:
    explicit Reader(XML_Parser parser) : parser_(parser) {}

    // After a stop expat may still report what it had in hand: it is not looked at.
    void start(const XML_Char* name) {
        if (!why_.empty())
            return;
        const std::string_view local = local_name(name);
        if (path_.size() >= kMaxDepth)
            return stop(fmt::format("nested deeper than {:d} elements", kMaxDepth));
        if (path_.empty() && local != "root")
            return stop(
                fmt::format("no device description (its root is '{:s}')", printable(local, 40)));
        path_.emplace_back(local);
        if (in_root_device_field() && is_field(local)) {
            text_.clear();
            full_ = false;
        }
    }

    void end() {
        if (!why_.empty() || path_.empty())
            return;
        if (in_root_device_field() && is_field(path_.back()) && info_.count(path_.back()) == 0) {
            std::string value = trimmed(text_);
            if (!value.empty())
                info_.emplace(path_.back(), std::move(value));
        }
        if (path_.size() == 2 && path_[1] == "device")
            devices_seen_ = true;
        path_.pop_back();
    }

    void text(const XML_Char* s, int len) {
        if (!why_.empty() || full_ || !in_root_device_field() || !is_field(path_.back()))
            return;
        text_.append(s, static_cast<std::size_t>(len));
        if (text_.size() > kMaxValue) {
            cut(text_, kMaxValue);
            full_ = true;
        }
    }

    void stop(std::string why) {
        why_ = std::move(why);
        XML_StopParser(parser_, XML_FALSE);
    }

    const std::string& why() const { return why_; }
    Info take() { return std::move(info_); }

private:
    // Directly inside the first <device> of <root>: its own fields, not those of the devices
    // it embeds.
    bool in_root_device_field() const {
        return path_.size() == 3 && path_[1] == "device" && !devices_seen_;
    }

    XML_Parser parser_;
    std::vector<std::string> path_;
    std::string text_;
    Info info_;
    std::string why_;
    bool devices_seen_ = false;
    bool full_ = false;  // the text was cut: the rest of it is not taken
};

void XMLCALL on_start(void* user, const XML_Char* name, const XML_Char** /*attributes*/) {
    static_cast<Reader*>(user)->start(name);
}

void XMLCALL on_end(void* user, const XML_Char* /*name*/) {
    static_cast<Reader*>(user)->end();
}

void XMLCALL on_text(void* user, const XML_Char* s, int len) {
    static_cast<Reader*>(user)->text(s, len);
}

void XMLCALL on_doctype(void* user, const XML_Char* /*name*/, const XML_Char* /*sysid*/,
                        const XML_Char* /*pubid*/, int /*has_internal_subset*/) {
    static_cast<Reader*>(user)->stop("it has a document type");
}

}  // namespace

std::optional<Info> read_description(std::string_view xml, std::string& why) {
    if (xml.size() > INT_MAX) {
        why = "too long";
        return std::nullopt;
    }
    const ParserPtr parser(XML_ParserCreate("UTF-8"));
    if (!parser) {
        why = "no memory for a parser";
        return std::nullopt;
    }
    Reader reader(parser.get());
    XML_SetUserData(parser.get(), &reader);
    XML_SetElementHandler(parser.get(), on_start, on_end);
    XML_SetCharacterDataHandler(parser.get(), on_text);
    XML_SetStartDoctypeDeclHandler(parser.get(), on_doctype);
    XML_SetParamEntityParsing(parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);
    const XML_Status status =
        XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE);
    if (!reader.why().empty()) {
        why = reader.why();
        return std::nullopt;
    }
    if (status != XML_STATUS_OK) {
        why = fmt::format("not XML: {:s} at line {:d}",
                          XML_ErrorString(XML_GetErrorCode(parser.get())),
                          XML_GetCurrentLineNumber(parser.get()));
        return std::nullopt;
    }
    Info info = reader.take();
    if (info.empty()) {
        why = "its root device names nothing";
        return std::nullopt;
    }
    return info;
}

}  // namespace nk::collector::upnp
