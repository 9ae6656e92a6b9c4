#include "diagnostics/UpdateAppcast.h"

#include <expat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <memory>

namespace sprelio {

namespace {

// Expat gives a namespaced name as "<uri>\x01<local>" with this separator.
constexpr char kSeparator = '\x01';

struct Name {
    std::string uri;
    std::string local;
};

Name splitName(const char* raw) {
    std::string_view text(raw);
    const auto cut = text.find(kSeparator);
    if (cut == std::string_view::npos) return {{}, std::string(text)};
    return {std::string(text.substr(0, cut)), std::string(text.substr(cut + 1))};
}

bool isSparkle(const Name& name) { return name.uri == kSparkleNamespace; }

std::optional<std::uint64_t> positiveNumber(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value == 0) return std::nullopt;
    return value;
}

std::string trimmed(std::string text) {
    const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && space(text.back())) text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && space(text[start])) ++start;
    return text.substr(start);
}

struct Reader {
    SUAppcast appcast;
    bool sawChannel = false;
    int depth = 0;
    int itemDepth = -1; // depth of the open <item>, -1 outside one
    std::optional<SUAppcastItem> item;
    std::string text; // character data of the innermost element of the item
    // Element forms of the item's version fields, used where the enclosure carries none.
    std::string elementVersion, elementShortVersion;

    void start(const char* rawName, const char** attributes) {
        ++depth;
        text.clear();
        const Name name = splitName(rawName);
        if (name.uri.empty() && name.local == "channel") sawChannel = true;
        if (name.uri.empty() && name.local == "item" && !item) {
            item.emplace();
            itemDepth = depth;
            elementVersion.clear();
            elementShortVersion.clear();
            return;
        }
        if (!item || name.local != "enclosure" || !name.uri.empty()) return;
        for (const char** a = attributes; a[0] && a[1]; a += 2) {
            const Name attribute = splitName(a[0]);
            const std::string value = a[1];
            if (attribute.uri.empty()) {
                if (attribute.local == "url") item->fileURL = trimmed(value);
                if (attribute.local == "length") item->contentLength = positiveNumber(value);
            } else if (isSparkle(attribute)) {
                if (attribute.local == "version") item->versionString = trimmed(value);
                if (attribute.local == "shortVersionString") item->displayVersionString = trimmed(value);
                if (attribute.local == "edSignature") item->edSignature = trimmed(value);
                if (attribute.local == "os") item->operatingSystem = trimmed(value);
            }
        }
    }

    void end(const char* rawName) {
        const Name name = splitName(rawName);
        if (item && depth == itemDepth) {
            if (item->versionString.empty()) item->versionString = elementVersion;
            if (item->displayVersionString.empty()) item->displayVersionString = elementShortVersion;
            if (item->displayVersionString.empty()) item->displayVersionString = item->versionString;
            if (!item->fileURL.empty() && !item->versionString.empty()) appcast.items.push_back(std::move(*item));
            item.reset();
            itemDepth = -1;
        } else if (item && depth == itemDepth + 1) {
            const std::string value = trimmed(text);
            if (name.uri.empty() && name.local == "title") item->title = value;
            if (name.uri.empty() && name.local == "pubDate") item->pubDate = value;
            if (isSparkle(name) && name.local == "version") elementVersion = value;
            if (isSparkle(name) && name.local == "shortVersionString") elementShortVersion = value;
            if (isSparkle(name) && name.local == "releaseNotesLink") item->releaseNotesURL = value;
        }
        text.clear();
        --depth;
    }
};

struct ParserDeleter {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

struct Token {
    bool number;
    std::string_view text;
};

std::vector<Token> tokens(std::string_view version) {
    std::vector<Token> list;
    std::size_t i = 0;
    while (i < version.size()) {
        const auto c = static_cast<unsigned char>(version[i]);
        if (!std::isalnum(c)) {
            ++i;
            continue;
        }
        const bool number = std::isdigit(c) != 0;
        std::size_t j = i;
        while (j < version.size() && std::isalnum(static_cast<unsigned char>(version[j])) &&
               (std::isdigit(static_cast<unsigned char>(version[j])) != 0) == number)
            ++j;
        list.push_back({number, version.substr(i, j - i)});
        i = j;
    }
    return list;
}

int compareNumbers(std::string_view a, std::string_view b) {
    while (a.size() > 1 && a.front() == '0') a.remove_prefix(1);
    while (b.size() > 1 && b.front() == '0') b.remove_prefix(1);
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return a.compare(b) < 0 ? -1 : a.compare(b) > 0 ? 1 : 0;
}

} // namespace

std::optional<SUAppcast> parseAppcast(std::string_view xml, std::string& error) {
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreateNS(nullptr, kSeparator));
    if (!parser) {
        error = "out of memory for the XML parser";
        return std::nullopt;
    }
    Reader reader;
    XML_SetUserData(parser.get(), &reader);
    XML_SetElementHandler(
        parser.get(),
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            static_cast<Reader*>(data)->start(name, attributes);
        },
        [](void* data, const XML_Char* name) { static_cast<Reader*>(data)->end(name); });
    XML_SetCharacterDataHandler(parser.get(), [](void* data, const XML_Char* s, int length) {
        static_cast<Reader*>(data)->text.append(s, static_cast<std::size_t>(length));
    });
    if (xml.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        error = "the feed is too large";
        return std::nullopt;
    }
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) != XML_STATUS_OK) {
        error = std::string("not a valid XML document: ") + XML_ErrorString(XML_GetErrorCode(parser.get())) +
                " at line " + std::to_string(XML_GetCurrentLineNumber(parser.get()));
        return std::nullopt;
    }
    if (!reader.sawChannel) {
        error = "the document has no RSS channel";
        return std::nullopt;
    }
    return std::move(reader.appcast);
}

int compareVersions(std::string_view a, std::string_view b) {
    const auto left = tokens(a);
    const auto right = tokens(b);
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i) {
        const Token& x = left[i];
        const Token& y = right[i];
        if (x.number != y.number) return x.number ? 1 : -1;
        const int order = x.number ? compareNumbers(x.text, y.text) : x.text.compare(y.text);
        if (order != 0) return order < 0 ? -1 : 1;
    }
    if (left.size() == right.size()) return 0;
    // The longer one goes on: with a number it is a later release, with letters a pre-release of the shorter.
    if (left.size() > right.size()) return left[common].number ? 1 : -1;
    return right[common].number ? -1 : 1;
}

std::optional<SUAppcastItem> bestValidUpdate(const SUAppcast& appcast, std::string_view current) {
    const SUAppcastItem* best = nullptr;
    for (const auto& item : appcast.items) {
        if (!item.operatingSystem.empty() && item.operatingSystem != "linux") continue;
        if (compareVersions(item.versionString, current) <= 0) continue;
        if (!best || compareVersions(item.versionString, best->versionString) > 0) best = &item;
    }
    if (!best) return std::nullopt;
    return *best;
}

} // namespace sprelio
