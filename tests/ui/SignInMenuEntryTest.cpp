// The status menu's way to signing in: an account entry after the settings, titled by the sign-in state each time
// the menu opens, whose click opens the sign-in window through the application's one callback.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "audio/FakeAudioDevices.h"
#include "audio/MicrophoneManagerImpl.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/AppMenuBar.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FakeAudioDevices;

class SignInMenuEntry : public ::testing::Test {
protected:
    SignInMenuEntry() {
        microphones = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
            tp.loop(), tp, devices, tp, settings, nullptr, [] { return AppActivity::idle; }, {}});
        tp.runUntilIdle();
    }
    std::unique_ptr<AppMenuBar> make(std::function<std::string()> accountTitle) {
        auto menu = std::make_unique<AppMenuBar>(AppMenuBar::Dependencies{
            context, settings, *microphones, [] { return AppActivity::idle; }, std::move(accountTitle)});
        menu->awakeFromNib();
        return menu;
    }

    platform::test::RecordingLogSink logs;
    platform::test::TestPlatform tp;
    store::MemorySettingsStore defaults;
    store::AppConstants constants{tp};
    store::Settings settings{defaults, constants};
    store::PersistenceController persistence{tp.root(), true};
    store::ManagedObjectContext& context = persistence.container().viewContext();
    FakeAudioDevices devices{tp.loop()};
    std::unique_ptr<MicrophoneManagerImpl> microphones;
};

TEST_F(SignInMenuEntry, StandsAfterTheSettingsAndFollowsTheStateWhenTheMenuOpens) {
    std::string title = "Sign In…";
    auto menu = make([&] { return title; });
    std::vector<MenuItemId> ids;
    for (const auto& e : menu->entries()) ids.push_back(e.id);
    ASSERT_GE(ids.size(), 3u);
    EXPECT_EQ(ids[0], MenuItemId::settings);
    EXPECT_EQ(ids[1], MenuItemId::account);
    EXPECT_EQ(ids[2], MenuItemId::separator);
    EXPECT_EQ(menu->entry(MenuItemId::account)->title.title, "Sign In…");

    title = "Account…";
    menu->menuWillOpen();
    EXPECT_EQ(menu->entry(MenuItemId::account)->title.title, "Account…");
}

TEST_F(SignInMenuEntry, WithoutATitleSourceTheMenuHasNoAccountEntry) {
    auto menu = make({});
    EXPECT_EQ(menu->entry(MenuItemId::account), nullptr);
}

TEST_F(SignInMenuEntry, ItsClickOpensTheSignInWindow) {
    auto menu = make([] { return std::string("Sign In…"); });
    int opened = 0;
    std::vector<ContentViewTab> tabs;
    MenuActionTargets targets;
    targets.openTab = [&](ContentViewTab tab) { tabs.push_back(tab); };
    targets.openAccount = [&] { ++opened; };
    menu->actionHandler = setupMenuActionHandling(std::move(targets));
    menu->activate(MenuItemId::account);
    EXPECT_EQ(opened, 1);
    EXPECT_TRUE(tabs.empty());
    EXPECT_TRUE(logs.contains("AppMenuBar.didClickAccount()"));
    EXPECT_EQ(menuOptionName(MenuOption::Kind::account), "account");
}

} // namespace
} // namespace sprelio
