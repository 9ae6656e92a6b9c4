#pragma once
// The update feed: an RSS 2.0 document in which each <item> is one release, with its package in an <enclosure>
// (url, length) and the release's version and Ed25519 signature as attributes of the "sparkle" XML namespace
// (sparkle:version, sparkle:shortVersionString, sparkle:edSignature; each may also stand as an element of the
// item). The version compared with the running build is sparkle:version; shortVersionString is what people read.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sprelio {

inline constexpr std::string_view kSparkleNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";

struct SUAppcastItem {
    std::string title;
    std::string versionString;        // sparkle:version
    std::string displayVersionString; // sparkle:shortVersionString, else versionString
    std::string fileURL;              // the enclosure's url
    std::optional<std::uint64_t> contentLength; // the enclosure's length, when it gives a positive one
    std::string edSignature;          // base64 of the 64-byte Ed25519 signature of the whole file
    std::string operatingSystem;      // sparkle:os of the enclosure; "" is any
    std::string releaseNotesURL;
    std::string pubDate;
};

struct SUAppcast {
    std::vector<SUAppcastItem> items;
};

// Nothing (and `error` says why) when the text is not well-formed XML or has no RSS channel. Items without an
// enclosure URL or a version are left out: they can't be offered.
std::optional<SUAppcast> parseAppcast(std::string_view xml, std::string& error);

// Orders version texts the way release numbers are read: split into runs of digits and runs of letters (other
// characters separate), digit runs compared as numbers, letter runs as text; a letter run after a common prefix is
// a pre-release ("1.0b1" < "1.0"), extra numbers make a later version ("1.0" < "1.0.1"). <0, 0 or >0.
int compareVersions(std::string_view a, std::string_view b);

// The newest item that this system can install (sparkle:os absent or "linux") and that is newer than `current`;
// nothing when there is none.
std::optional<SUAppcastItem> bestValidUpdate(const SUAppcast& appcast, std::string_view current);

} // namespace sprelio
