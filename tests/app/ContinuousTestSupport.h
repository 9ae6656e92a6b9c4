#pragma once
// Continuous dictation as the end-to-end tests and the desktop benchmark set it up: its key stored in a home before
// Sprelio starts there, and the log lines that mark its stages.
#include <filesystem>
#include <string>

#include "base/Uuid.h"
#include "input/Key.h"
#include "store/Entities.h"
#include "store/Persistence.h"

namespace sprelio::apptest {

inline constexpr const char* kContinuousListening = "ContinuousSpeechManager.startMonitoring() - Audio engine started";
inline constexpr const char* kContinuousCalibrated = "ContinuousSpeechManager.handle() - Calibration complete: ";
// A pause has ended a piece (and, once, the stop of the mode).
inline constexpr const char* kContinuousPieceStopped = "ContinuousSpeechManager.stopRecording() - stopping recorder took";

// The continuous action on the right Alt key, tapped.
inline void storeContinuousShortcut(const std::filesystem::path& home) {
    store::PersistenceController store(home / ".local/share/Sprelio");
    auto& context = store.container().viewContext();
    auto shortcut = context.insertNew<store::UserShortcut>();
    shortcut->setUuid(Uuid::random());
    shortcut->setShortcutActionRawValue(std::string("continuousVoiceToText"));
    shortcut->setModifierEventKeyCode(61);
    shortcut->setMouseEventMouseButton(-1);
    shortcut->setShortcutString(keyString(61));
    shortcut->setOrder(0);
    shortcut->setHold(false);
    context.save();
}

} // namespace sprelio::apptest
