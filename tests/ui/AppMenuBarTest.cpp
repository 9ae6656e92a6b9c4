// The status menu: its entries, the keys it shows, the microphone list that a recording must not disturb, Cancel
// by state, and where each option leads. On the test platform, with a real microphone manager over an in-memory
// sound server and the store in memory.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "audio/FakeAudioDevices.h"
#include "audio/MicrophoneManagerImpl.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/AppMenuBar.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FakeAudioDevices;
using platform::test::RecordingLogSink;
using Kind = MenuOption::Kind;

class AppMenuBarTest : public ::testing::Test {
protected:
    AppMenuBarTest() {
        addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
        addDevice(FakeAudioDevices::bluetooth(5, "Headset"));
        microphones = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
            tp.loop(), tp, devices, tp, settings, nullptr, [this] { return status; }, {}});
        tp.runUntilIdle();
        tp.advance(1s); // past the refresh throttle of the first selection
        menu = std::make_unique<AppMenuBar>(
            AppMenuBar::Dependencies{context, settings, *microphones, [this] { return status; }});
        menu->actionHandler = [this](const MenuOption& option) { options.push_back(option); };
        menu->awakeFromNib();
    }

    void addDevice(platform::AudioInputDevice device) {
        tp.devices[device.id] = {};
        devices.list.push_back(std::move(device));
    }
    std::shared_ptr<store::UserShortcut> addShortcut(ShortcutAction action, std::optional<std::string> shortcutString,
                                                     std::int64_t mouseButton = -1,
                                                     std::optional<std::string> direction = std::nullopt) {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(std::string(shortcutActionRawValue(action)));
        s->setShortcutString(std::move(shortcutString));
        s->setMouseEventMouseButton(mouseButton);
        s->setSingleModifierDirection(std::move(direction));
        context.save();
        return s;
    }
    std::vector<std::string> submenuTitles() const {
        std::vector<std::string> titles;
        for (const auto& item : menu->entry(MenuItemId::microphone)->submenu)
            titles.push_back(item.title + (item.checked ? " [x]" : ""));
        return titles;
    }

    RecordingLogSink logs;
    platform::test::TestPlatform tp;
    store::MemorySettingsStore defaults;
    store::AppConstants constants{tp};
    store::Settings settings{defaults, constants};
    store::PersistenceController persistence{tp.root(), true};
    store::ManagedObjectContext& context = persistence.container().viewContext();
    FakeAudioDevices devices{tp.loop()};
    AppActivity status = AppActivity::idle;
    std::unique_ptr<MicrophoneManagerImpl> microphones;
    std::unique_ptr<AppMenuBar> menu;
    std::vector<MenuOption> options;
};

TEST_F(AppMenuBarTest, EntriesStandInTheirFixedOrderWithCancelHiddenAtIdle) {
    std::vector<MenuItemId> ids;
    for (const auto& e : menu->entries()) ids.push_back(e.id);
    using enum MenuItemId;
    EXPECT_EQ(ids, (std::vector<MenuItemId>{settings, separator, history, ai, substitutions, fileToText, separator,
                                            microphone, separator, quit, separator, cancel}));
    EXPECT_EQ(menu->entry(settings)->title.title.rfind("⚙️ ", 0), 0u) << "the settings entry begins with the gear";
    EXPECT_EQ(menu->entry(quit)->title.title, "Quit");
    EXPECT_TRUE(menu->entry(cancel)->hidden);
    EXPECT_TRUE(logs.contains("AppmenuBar: awakeFromNib"));

    menu->menuWillOpen();
    EXPECT_TRUE(menu->entry(cancel)->hidden) << "at idle there is nothing to cancel";
    EXPECT_TRUE(logs.contains("AppMenuBar.menuWillOpen()"));
    EXPECT_TRUE(logs.contains("AppMenuBar.refreshUserShortcuts()"));
}

TEST_F(AppMenuBarTest, ShowEntriesCarryTheDisplayFormOfTheFirstShortcutOfTheirAction) {
    addShortcut(ShortcutAction::showHistory, "⌥H");
    addShortcut(ShortcutAction::showIntelligence, "⌘I");
    addShortcut(ShortcutAction::showIntelligence, "⌘J"); // second of its action: not shown
    addShortcut(ShortcutAction::showSubstitutions, "⌥", -1, "right");
    addShortcut(ShortcutAction::showFileToText, std::nullopt, 3);
    addShortcut(ShortcutAction::recordAndTranscribe, "⌃R"); // no entry of its own

    menu->menuWillOpen();
    const auto key = [&](MenuItemId id) { return menu->entry(id)->title.shortcut; };
    // In the names a Linux user reads; the store keeps its own symbols.
    EXPECT_EQ(key(MenuItemId::history), "Alt+H");
    EXPECT_EQ(key(MenuItemId::ai), "Super+I");
    EXPECT_EQ(key(MenuItemId::substitutions), "Right Alt");
    EXPECT_EQ(key(MenuItemId::fileToText), "Button 8");
    EXPECT_EQ(menu->entry(MenuItemId::history)->title.title, "History");
    EXPECT_TRUE(logs.contains("AppMenuBar.composeMenuTitle() - titleString: History / shortcutString: Alt+H"));
    ASSERT_TRUE(menu->userShortcuts().has_value());
    EXPECT_EQ(menu->userShortcuts()->size(), 6u);

    // Contents are recomputed at every opening: a removed shortcut takes its key with it.
    for (const auto& s : context.fetchAll<store::UserShortcut>())
        if (s->shortcutActionRawValue() == "showHistory") context.deleteObject(s);
    context.save();
    menu->menuWillOpen();
    EXPECT_EQ(key(MenuItemId::history), "");
    EXPECT_TRUE(logs.contains("AppMenuBar.composeMenuTitle() - titleString: History / shortcutString: "));
}

TEST_F(AppMenuBarTest, ShortcutWithoutKeyShowsItsEntryWithoutKeyText) {
    addShortcut(ShortcutAction::showHistory, std::nullopt);
    menu->menuWillOpen();
    EXPECT_EQ(menu->entry(MenuItemId::history)->title.title, "History");
    EXPECT_EQ(menu->entry(MenuItemId::history)->title.shortcut, "");
}

TEST_F(AppMenuBarTest, CancelFollowsTheStateEachTimeTheMenuOpens) {
    const std::pair<AppActivity, std::string> cases[] = {{AppActivity::recording, "Cancel Recording"},
                                                         {AppActivity::processing, "Cancel Processing"},
                                                         {AppActivity::continuousSpeechActive, "Cancel Continuous"},
                                                         {AppActivity::filesMenuViewRecording, "Cancel Recording"}};
    for (const auto& [state, title] : cases) {
        status = state;
        menu->menuWillOpen();
        EXPECT_FALSE(menu->entry(MenuItemId::cancel)->hidden) << appActivityName(state);
        EXPECT_EQ(menu->entry(MenuItemId::cancel)->title.title, title);
    }
    status = AppActivity::idle;
    menu->menuWillOpen();
    EXPECT_TRUE(menu->entry(MenuItemId::cancel)->hidden);
}

TEST_F(AppMenuBarTest, MicrophoneSubmenuListsTheDevicesAndTicksTheSelectedOne) {
    settings.setUserSelectedMicDeviceName("Headset");
    menu->menuWillOpen();
    EXPECT_EQ(submenuTitles(),
              (std::vector<std::string>{"Built-in Microphone (Built-in)", "Headset (Bluetooth) [x]"}));
    for (const auto& item : menu->entry(MenuItemId::microphone)->submenu) EXPECT_TRUE(item.enabled);
    EXPECT_TRUE(logs.contains("AppMenuBar.updateMics()"));
    EXPECT_TRUE(logs.contains("refreshMicDevices(caller: Microphone.selectOptimalInputDevice()) - freshMics (2):\n"
                              "• Built-in Microphone (Built-in)\n• Headset (Bluetooth)"));
}

TEST_F(AppMenuBarTest, OpeningDuringARecordingLeavesTheDeviceListAndTheChoiceAlone) {
    menu->menuWillOpen();
    const auto before = submenuTitles();
    ASSERT_EQ(before.size(), 2u);

    // A device arrives and the user's named choice changes while a dictation records.
    addDevice(FakeAudioDevices::usb(9, "USB Mic"));
    settings.setUserSelectedMicDeviceName("Headset");
    tp.advance(1s);
    status = AppActivity::recording;
    const int listCalls = devices.listCalls;
    const auto setDefaults = devices.setDefaultCalls.size();
    logs.clear();
    menu->menuWillOpen();
    EXPECT_EQ(submenuTitles(), before);
    EXPECT_EQ(devices.listCalls, listCalls) << "no device list was asked for";
    EXPECT_EQ(devices.setDefaultCalls.size(), setDefaults) << "no selection ran";
    EXPECT_TRUE(logs.contains("updateMics() - app is .recording, will not refresh!!", LogLevel::warning));
    EXPECT_EQ(menu->entry(MenuItemId::cancel)->title.title, "Cancel Recording");

    // Back at idle the next opening shows the new device and the user's choice.
    status = AppActivity::idle;
    menu->menuWillOpen();
    EXPECT_EQ(submenuTitles(), (std::vector<std::string>{"Built-in Microphone (Built-in)", "Headset (Bluetooth) [x]",
                                                         "USB Mic (USB)"}));
}

TEST_F(AppMenuBarTest, OpeningsCloserThanTheRefreshIntervalShareOneDeviceList) {
    menu->menuWillOpen();
    addDevice(FakeAudioDevices::unknown(11, "Line In"));
    tp.advance(50ms);
    menu->menuWillOpen();
    EXPECT_EQ(menu->entry(MenuItemId::microphone)->submenu.size(), 2u) << "refreshed too soon";
    EXPECT_TRUE(logs.contains("refreshMicDevices(caller: Microphone.selectOptimalInputDevice()) - skipped (too frequent)"));
    tp.advance(100ms);
    menu->menuWillOpen();
    EXPECT_EQ(menu->entry(MenuItemId::microphone)->submenu.size(), 3u);
}

TEST_F(AppMenuBarTest, EachEntryLogsAndSendsItsOption) {
    const std::pair<MenuItemId, std::pair<Kind, std::string>> cases[] = {
        {MenuItemId::settings, {Kind::settings, "AppMenuBar.didClickOpenSettings()"}},
        {MenuItemId::history, {Kind::history, "AppMenuBar.didClickOpenHistory()"}},
        {MenuItemId::ai, {Kind::ai, "AppMenuBar.didClickOpenIntelligence()"}},
        {MenuItemId::substitutions, {Kind::substitutions, "AppMenuBar.didClickOpenSubstitutions()"}},
        {MenuItemId::fileToText, {Kind::fileToText, "AppMenuBar.didClickFileToText()"}},
        {MenuItemId::quit, {Kind::quit, "AppMenuBar.didClickQuitApp()"}},
        {MenuItemId::cancel, {Kind::cancel, "AppMenuBar.didClickCancel()"}}};
    for (const auto& [id, expected] : cases) {
        options.clear();
        menu->activate(id);
        ASSERT_EQ(options.size(), 1u);
        EXPECT_EQ(options[0].kind, expected.first);
        EXPECT_TRUE(logs.contains(expected.second));
    }
    options.clear();
    menu->activate(MenuItemId::microphone);
    menu->activate(MenuItemId::separator);
    EXPECT_TRUE(options.empty());
}

TEST_F(AppMenuBarTest, DeviceEntrySendsItsDeviceAndAnUnknownTagNothing) {
    menu->menuWillOpen();
    menu->userSelectedMic(1);
    ASSERT_EQ(options.size(), 1u);
    EXPECT_EQ(options[0].kind, Kind::changeMic);
    EXPECT_EQ(options[0].mic.name, "Headset");
    EXPECT_EQ(options[0].mic.id, 5u);
    EXPECT_TRUE(logs.contains("AppMenuBar.userSelectedMic()"));

    menu->userSelectedMic(7);
    EXPECT_EQ(options.size(), 1u);
    EXPECT_TRUE(logs.contains("AppMenuBar.userSelectedMic() - no device with tag 7", LogLevel::error));
}

// The application's handler, on the real microphone manager and with the session's operations recorded.
class MenuActionHandling : public AppMenuBarTest {
protected:
    MenuActionHandling() {
        menu->actionHandler = setupMenuActionHandling(MenuActionTargets{
            [this] { return status; },
            [this] { calls.push_back("callCancelRecordingAndProcessing"); },
            [this] { calls.push_back("stopContinuousSpeech"); },
            [this] { calls.push_back("setupMenuWithMainMenu"); },
            [this](const MicDevice& mic) {
                calls.push_back("setDefaultInputDevice:" + mic.name);
                microphones->setDefaultInputDevice(mic.id, mic.name, mic.transportType);
            },
            [this] { calls.push_back("quit"); },
            [this](ContentViewTab tab) { calls.push_back("open:" + std::string(contentViewTabName(tab))); }});
    }
    std::vector<std::string> calls;
};

TEST_F(MenuActionHandling, CancelActsByState) {
    menu->didClickCancel();
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(logs.contains("setupMenuActionHandling() - user pressed Cancel"));
    EXPECT_TRUE(logs.contains("setupmenuActionHandling() - .idle, ignoring Cancel action"));

    for (AppActivity state : {AppActivity::recording, AppActivity::processing}) {
        calls.clear();
        status = state;
        menu->didClickCancel();
        EXPECT_EQ(calls, (std::vector<std::string>{"callCancelRecordingAndProcessing", "setupMenuWithMainMenu"}));
    }
    calls.clear();
    status = AppActivity::filesMenuViewRecording;
    menu->didClickCancel();
    EXPECT_TRUE(calls.empty()) << "the Files tab's recording is stopped there";

    status = AppActivity::continuousSpeechActive;
    menu->didClickCancel();
    EXPECT_EQ(calls, (std::vector<std::string>{"stopContinuousSpeech", "setupMenuWithMainMenu"}));
}

TEST_F(MenuActionHandling, ChosenDeviceBecomesTheDefaultInputAndTheRememberedChoice) {
    menu->menuWillOpen();
    ASSERT_EQ(menu->menuMics().size(), 2u);
    devices.setDefaultCalls.clear();
    menu->userSelectedMic(1);
    EXPECT_EQ(calls, (std::vector<std::string>{"setDefaultInputDevice:Headset"}));
    EXPECT_EQ(devices.setDefaultCalls, (std::vector<platform::AudioDeviceID>{5}));
    EXPECT_EQ(settings.userSelectedMicDeviceName(), "Headset");
    EXPECT_TRUE(logs.containsPrefix("setupMenuActionHandling() - .changeMic : Headset"));

    // The next opening ticks the chosen device.
    tp.advance(1s);
    menu->menuWillOpen();
    EXPECT_EQ(submenuTitles(), (std::vector<std::string>{"Built-in Microphone (Built-in)", "Headset (Bluetooth) [x]"}));
}

TEST_F(MenuActionHandling, ShowEntriesOpenTheirTabsAndQuitQuits) {
    menu->didClickOpenSettings();
    menu->didClickOpenHistory();
    menu->didClickOpenIntelligence();
    menu->didClickOpenSubstitutions();
    menu->didClickFileToText();
    menu->didClickQuitApp();
    EXPECT_EQ(calls, (std::vector<std::string>{"open:settings", "open:history", "open:ai", "open:substitutions",
                                               "open:files", "quit"}));
    EXPECT_TRUE(logs.contains("setupMenuActionHandling() - .quit, calling NSApp.terminate(nil)"));
}

TEST_F(AppMenuBarTest, WithoutHandlerAClickIsLoggedAndDropped) {
    menu->actionHandler = nullptr;
    menu->didClickQuitApp();
    EXPECT_TRUE(logs.contains("AppMenuBar - no actionHandler set, ignoring .quit", LogLevel::error));
}

} // namespace
} // namespace sprelio
