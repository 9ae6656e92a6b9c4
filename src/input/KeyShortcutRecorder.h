#pragma once
// The field of a shortcut row that captures a new hotkey: a modifier key alone, a normal combination or a mouse
// button. While it records, the event tap swallows every key (the keyboard is ours) and builds the recorder's
// string, and the mouse manager stores a pressed button; when the keys are let go, the recorder decides which of
// the three kinds it has, stores it and makes it live at once.
//
// A recording always ends with the keyboard given back: by a finished key, by Escape, or by cancel() when the row's
// window loses the focus, closes or goes away.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/Uuid.h"
#include "input/EventTapManager.h"
#include "input/KeyNames.h"
#include "input/KeyboardShortcutManager.h"
#include "input/MouseShortcutManager.h"
#include "platform/GlobalInput.h"
#include "platform/Sounds.h"

namespace sprelio {

namespace store {
class ManagedObjectContext;
class UserShortcut;
} // namespace store

struct KeyShortcutRecorderDependencies {
    store::ManagedObjectContext& viewContext;
    KeyboardShortcutManager& keyboardShortcutManager;
    KeyboardShortcuts& keyboardShortcuts;
    // The tap and the mouse manager: absent where nothing is recorded live (the command line without the
    // application), where keys come in through assign() only.
    EventTapManager* eventTapManager = nullptr;
    MouseShortcutManager* mouseShortcutManager = nullptr;
    platform::SoundPlayer* sounds = nullptr;
    // AppDelegate.updateCachedUserShortcuts(): the event paths read the shortcuts from there.
    std::function<void()> updateCachedUserShortcuts;
};

class KeyShortcutRecorder {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;

    // How the last recording ended, for the row to show.
    enum class Outcome { none, stored, cleared, cancelled, duplicate, multipleModifiers, takenByAnotherClient, refused };

    explicit KeyShortcutRecorder(KeyShortcutRecorderDependencies dependencies);
    ~KeyShortcutRecorder();
    KeyShortcutRecorder(const KeyShortcutRecorder&) = delete;
    KeyShortcutRecorder& operator=(const KeyShortcutRecorder&) = delete;

    // Starts capturing for the shortcut: the keyboard is grabbed and the next button press is taken. A recording
    // of another row ends first, as by Escape.
    void startRecording(const UserShortcutPtr& shortcut);
    void stopRecording(const std::optional<Uuid>& nextShortcutUUID = std::nullopt);
    void actionForEscapeKey();
    // Ends the recording and moves on to the next row, which starts recording.
    void actionForTabKey();
    // Ends a recording for a reason outside the keys (focus lost, window closed): like Escape.
    void cancel();

    // Stores a key as if it had been recorded, with the same rules (the command line's `--key`). The outcome.
    Outcome assign(const UserShortcutPtr& shortcut, const KeySpec& key);

    bool currentStringIsDuplicateShortcutString() const;
    bool currentStringOnlyHasMultipleModifiers() const;

    bool isRecording() const { return recordingUuid_.has_value(); }
    const std::optional<Uuid>& recordingUuid() const { return recordingUuid_; }
    const UserShortcutPtr& shortcut() const { return shortcut_; }
    const std::string& currentString() const { return currentString_; }
    // The string being recorded, in the names a person reads ("Ctrl+Alt+…" while keys are down).
    std::string displayString() const;
    Outcome lastOutcome() const { return lastOutcome_; }
    // A sentence about the last recording that was not stored; empty otherwise.
    const std::string& lastMessage() const { return lastMessage_; }

    // After every change of the state above.
    std::function<void()> onChange;
    // The row that comes after a shortcut (for Tab); none for the last one.
    std::function<std::optional<Uuid>(const Uuid&)> shortcutAfter;

private:
    struct Snapshot {
        std::optional<std::string> shortcutString;
        std::int64_t modifierEventKeyCode = -1;
        std::int64_t mouseEventMouseButton = -1;
        std::optional<std::string> singleModifierDirection;
        std::optional<CarbonShortcut> carbon;
    };
    void tapChanged();
    void mouseRecorded();
    void endCapture();
    void registerWithKeyboardShortcutManager();
    void registerWithKeyboardShortcuts();
    void restore(const Snapshot& snapshot);
    void finished(Outcome outcome, std::string message = {});
    void changed();
    void playBasso();
    Snapshot snapshotOf(const store::UserShortcut& shortcut) const;
    std::string name() const;

    KeyShortcutRecorderDependencies deps_;
    LifetimeGuard lifetime_;
    UserShortcutPtr shortcut_;
    std::optional<Uuid> recordingUuid_;
    std::optional<platform::GlobalInputEvent> currentEvent_;
    std::string currentString_;
    // What the keys held right now make, while they are down.
    std::string liveString_;
    std::set<std::uint16_t> modifiersHeld_;
    Snapshot before_;
    Outcome lastOutcome_ = Outcome::none;
    std::string lastMessage_;
};

} // namespace sprelio
