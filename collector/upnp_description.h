// A UPnP device description (the XML at an SSDP LOCATION): what its root device says it is.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace nk::collector::upnp {

// Element name to text: deviceType, friendlyName, manufacturer, manufacturerURL,
// modelDescription, modelName, modelNumber, modelURL, serialNumber, UDN, UPC, presentationURL.
using Info = std::map<std::string, std::string>;

// Longer texts are cut (on a character boundary) to this many bytes.
inline constexpr std::size_t kMaxValue = 256;

// The root device's fields that it gives; empty with the reason in `why` when the text is not
// XML, has a document type (descriptions have none; entity tricks need one), is nested too
// deep, is no description or names none of them.
std::optional<Info> read_description(std::string_view xml, std::string& why);

}  // namespace nk::collector::upnp
