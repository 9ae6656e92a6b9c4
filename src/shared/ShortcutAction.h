#pragma once
// What a UserShortcut does. Stored by its case name; the order of the cases is the display order.
#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace sprelio {

enum class ShortcutAction {
    recordAndTranscribe,
    voiceToDialog,
    recordAndProcessWithAI,
    copyTextAndAskAI,
    showIntelligence,
    recordAndTranscribeToFlat,
    recordAndTranscribeToCaps,
    transcribeLast,
    showHistory,
    showSubstitutions,
    showFileToText,
    continuousVoiceToText,
};

inline constexpr std::size_t kShortcutActionCount = 12;
// Every case, in display order.
const std::array<ShortcutAction, kShortcutActionCount>& allShortcutActions();

// The stored form: the case name.
std::string_view shortcutActionRawValue(ShortcutAction action);
// Nothing for a text that is no case; callers log it and go on.
std::optional<ShortcutAction> shortcutActionFromRawValue(std::string_view rawValue);
std::string_view shortcutActionTitle(ShortcutAction action);
std::string_view shortcutActionMark(ShortcutAction action);
std::ostream& operator<<(std::ostream& out, ShortcutAction action);

// Continues a sentence already typed: a leading blank, the first word in lower case, the rest as it came.
std::string flatFormOfText(std::string_view text);
// Upper case by the locale-independent (root) rules, so the result does not depend on the user's locale.
std::string capsFormOfText(std::string_view text);
// Lower case by the locale-independent (root) rules.
std::string lowercasedText(std::string_view text);

// Where the result of an AI action goes.
enum class IntelligenceActionCompletionType { paste, dialog };

std::string_view intelligenceActionCompletionTypeRawValue(IntelligenceActionCompletionType type);
std::optional<IntelligenceActionCompletionType> intelligenceActionCompletionTypeFromRawValue(std::string_view raw);
std::string_view intelligenceActionCompletionTypeDescription(IntelligenceActionCompletionType type);

} // namespace sprelio
