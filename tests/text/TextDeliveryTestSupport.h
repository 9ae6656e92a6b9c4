#pragma once
// The text delivery on the test platform: virtual time, a clipboard and a keyboard that record everything, the
// application in front as a field, settings in memory.
#include <memory>
#include <string>

#include "input/KeyCodes.h"
#include "platform/test/FakeClipboard.h"
#include "platform/test/FakeSyntheticKeyboard.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "text/AccesibilityControllerImpl.h"
#include "text/ClipboardHelper.h"

namespace sprelio::texttest {

// A layout the test can change: its name, and the key that types V.
class TestKeyboardLayout final : public platform::KeyboardLayout {
public:
    std::string name = "English (US)";
    std::uint16_t vKey = 9;
    std::string currentLayoutIdentifier() const override { return "test-" + std::to_string(vKey); }
    std::string currentLayoutLocalizedName() const override { return name; }
    std::optional<std::string> character(std::uint16_t keyCode) const override {
        if (keyCode == vKey) return "v";
        if (keyCode == 9) return "q"; // the key V leaves
        return qwerty.character(keyCode);
    }
    void setLayoutChangedHandler(std::function<void()> handler) override { changed = std::move(handler); }
    std::function<void()> changed;

private:
    QwertyKeyboardLayout qwerty;
};

inline platform::RunningApplication application(std::string bundle, std::optional<std::string> name,
                                                pid_t pid = 4242, std::optional<std::string> title = std::nullopt) {
    platform::RunningApplication app;
    app.processIdentifier = pid;
    app.bundleIdentifier = std::move(bundle);
    app.localizedName = std::move(name);
    app.windowTitle = std::move(title);
    return app;
}

struct TextDelivery {
    platform::test::RecordingLogSink log;
    platform::test::TestPlatform tp;
    store::AppConstants constants{tp};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    platform::test::FakeClipboard clipboard{tp.loop()};
    platform::test::FakeSyntheticKeyboard keyboard;
    TestKeyboardLayout layout;
    KeyCodes keyCodes{layout};
    bool trusted = true;
    ClipboardHelper helper{ClipboardHelperDependencies{tp.loop(), clipboard, keyboard, tp, constants,
                                                       [this] { return trusted; }}};
    AccesibilityControllerImpl controller{
        AccesibilityControllerDependencies{tp.loop(), settings, tp, constants, helper, keyboard, keyCodes, layout}};

    TextDelivery() { tp.frontmost = application("org.gnome.TextEditor", std::string("gnome-text-editor")); }

    // True when no log line holds the text (dictated text never reaches the log).
    bool logNeverShows(const std::string& text) const {
        for (const auto& line : log.lines())
            if (line.message.find(text) != std::string::npos) return false;
        return true;
    }
};

} // namespace sprelio::texttest
