#include "shared/ShortcutAction.h"

#include <unicode/ucasemap.h>
#include <unicode/utypes.h>

#include <memory>

namespace sprelio {

namespace {

struct ActionRow {
    ShortcutAction action;
    std::string_view raw;
    std::string_view mark;
    std::string_view title;
};

constexpr std::array<ActionRow, kShortcutActionCount> kRows = {{
    {ShortcutAction::recordAndTranscribe, "recordAndTranscribe", "🎙️", "Voice to text"},
    {ShortcutAction::voiceToDialog, "voiceToDialog", "🗣️", "Voice to Dialog"},
    {ShortcutAction::recordAndProcessWithAI, "recordAndProcessWithAI", "🤖", "Voice to text and use AI"},
    {ShortcutAction::copyTextAndAskAI, "copyTextAndAskAI", "📋", "Copy text and use AI"},
    {ShortcutAction::showIntelligence, "showIntelligence", "🧠", "Show AI Presets"},
    {ShortcutAction::recordAndTranscribeToFlat, "recordAndTranscribeToFlat", "🔡",
     "voice to text (start with lowercase)"},
    {ShortcutAction::recordAndTranscribeToCaps, "recordAndTranscribeToCaps", "🔠", "VOICE TO TEXT (ALL CAPS)"},
    {ShortcutAction::transcribeLast, "transcribeLast", "🔄", "Convert last recording to text"},
    {ShortcutAction::showHistory, "showHistory", "📜", "Show History"},
    {ShortcutAction::showSubstitutions, "showSubstitutions", "🔁", "Show Substitution Editor"},
    {ShortcutAction::showFileToText, "showFileToText", "📄", "Convert a File to Text"},
    {ShortcutAction::continuousVoiceToText, "continuousVoiceToText", "♾️", "Continuous Voice to Text"},
}};

const ActionRow& rowOf(ShortcutAction action) { return kRows[static_cast<std::size_t>(action)]; }

using CaseFunction = int32_t (*)(const UCaseMap*, char*, int32_t, const char*, int32_t, UErrorCode*);

// Case mapping through ICU with the root locale; text that is not valid UTF-8 comes back unchanged rather than
// being lost.
std::string mapCase(std::string_view text, CaseFunction function) {
    if (text.empty()) return {};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UCaseMap, decltype(&ucasemap_close)> map(ucasemap_open("", 0, &status), &ucasemap_close);
    if (U_FAILURE(status) || !map) return std::string(text);
    std::string out(text.size() + 16, '\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        status = U_ZERO_ERROR;
        const int32_t length = function(map.get(), out.data(), static_cast<int32_t>(out.size()), text.data(),
                                        static_cast<int32_t>(text.size()), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.assign(static_cast<std::size_t>(length) + 1, '\0');
            continue;
        }
        if (U_FAILURE(status)) return std::string(text);
        out.resize(static_cast<std::size_t>(length));
        return out;
    }
    return std::string(text);
}

} // namespace

const std::array<ShortcutAction, kShortcutActionCount>& allShortcutActions() {
    static const std::array<ShortcutAction, kShortcutActionCount> all = [] {
        std::array<ShortcutAction, kShortcutActionCount> a{};
        for (std::size_t i = 0; i < kRows.size(); ++i) a[i] = kRows[i].action;
        return a;
    }();
    return all;
}

std::string_view shortcutActionRawValue(ShortcutAction action) { return rowOf(action).raw; }

std::optional<ShortcutAction> shortcutActionFromRawValue(std::string_view rawValue) {
    for (const auto& row : kRows) {
        if (row.raw == rawValue) return row.action;
    }
    return std::nullopt;
}

std::string_view shortcutActionTitle(ShortcutAction action) { return rowOf(action).title; }
std::string_view shortcutActionMark(ShortcutAction action) { return rowOf(action).mark; }
std::ostream& operator<<(std::ostream& out, ShortcutAction action) { return out << shortcutActionRawValue(action); }

std::string lowercasedText(std::string_view text) { return mapCase(text, &ucasemap_utf8ToLower); }
std::string capsFormOfText(std::string_view text) { return mapCase(text, &ucasemap_utf8ToUpper); }

std::string flatFormOfText(std::string_view text) {
    const auto blank = text.find(' ');
    const std::string_view firstWord = blank == std::string_view::npos ? text : text.substr(0, blank);
    const std::string_view rest = blank == std::string_view::npos ? std::string_view{} : text.substr(blank + 1);
    std::string out = " " + lowercasedText(firstWord);
    if (!rest.empty()) {
        out += ' ';
        out += rest;
    }
    return out;
}

std::string_view intelligenceActionCompletionTypeRawValue(IntelligenceActionCompletionType type) {
    return type == IntelligenceActionCompletionType::paste ? "paste" : "dialog";
}

std::optional<IntelligenceActionCompletionType> intelligenceActionCompletionTypeFromRawValue(std::string_view raw) {
    if (raw == "paste") return IntelligenceActionCompletionType::paste;
    if (raw == "dialog") return IntelligenceActionCompletionType::dialog;
    return std::nullopt;
}

std::string_view intelligenceActionCompletionTypeDescription(IntelligenceActionCompletionType type) {
    return type == IntelligenceActionCompletionType::paste ? "Text from Completion will be pasted"
                                                            : "Text from Completion will be shown in actions dialog";
}

} // namespace sprelio
