#pragma once
// The text delivery on the X11 adapters against one X server: the logic as the desktop application wires it, with
// settings in memory. Members go in the reverse order of their making. Free of the test framework: the benchmarks
// use it too.
#include <memory>
#include <string>

#include "input/KeyCodes.h"
#include "platform/linux/X11Clipboard.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/linux/X11KeyboardLayout.h"
#include "platform/linux/X11SyntheticKeyboard.h"
#include "platform/linux/X11Workspace.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "text/AccesibilityControllerImpl.h"
#include "text/ClipboardHelper.h"

namespace sprelio::texttest {

struct X11TextDeliveryStack {
    platform::RealTimeLoop loop;
    platform::test::TestPlatform folders; // the folders of the constants; its loop is not used here
    store::AppConstants constants{folders};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    std::unique_ptr<platform::X11GlobalInput> input; // Sprelio's own event tap, when started with one
    std::unique_ptr<platform::X11Clipboard> clipboard;
    std::unique_ptr<platform::X11SyntheticKeyboard> keyboard;
    std::unique_ptr<platform::X11KeyboardLayout> layout;
    std::unique_ptr<KeyCodes> keyCodes;
    std::unique_ptr<platform::X11Workspace> workspace;
    std::unique_ptr<ClipboardHelper> helper;
    std::unique_ptr<AccesibilityControllerImpl> controller;

    // With `withInput` the tap runs too and the keyboard marks the keys it sends, so that the tap passes them by;
    // the desktop then counts as trusted while the tap is available.
    void start(const std::string& display, bool withInput = false) {
        if (withInput) input = std::make_unique<platform::X11GlobalInput>(loop, display);
        clipboard = std::make_unique<platform::X11Clipboard>(loop, display);
        keyboard = std::make_unique<platform::X11SyntheticKeyboard>(display, input.get());
        layout = std::make_unique<platform::X11KeyboardLayout>(loop, display);
        keyCodes = std::make_unique<KeyCodes>(*layout);
        workspace = std::make_unique<platform::X11Workspace>(loop, display);
        helper = std::make_unique<ClipboardHelper>(ClipboardHelperDependencies{
            loop, *clipboard, *keyboard, *workspace, constants, [this] { return !input || input->isAvailable(); }});
        controller = std::make_unique<AccesibilityControllerImpl>(AccesibilityControllerDependencies{
            loop, settings, *workspace, constants, *helper, *keyboard, *keyCodes, *layout});
    }
    // Takes the adapters down, before the X server goes.
    void stop() {
        controller.reset();
        helper.reset();
        workspace.reset();
        keyCodes.reset();
        layout.reset();
        keyboard.reset();
        clipboard.reset();
        input.reset();
    }
    ~X11TextDeliveryStack() { stop(); }
};

} // namespace sprelio::texttest
