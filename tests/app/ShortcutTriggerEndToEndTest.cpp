// A shortcut pressed from the command line, as a compositor's key binding does where no client may watch the
// keyboard: `sprelio shortcuts tap|press|release` reaches the running application on a private X desktop (its own
// PulseAudio daemon fed festival speech, the embedded server) and dictates into our test application as the key
// itself would.
#include <gtest/gtest.h>

#include <sstream>

#include "DesktopTestFixture.h"

namespace sprelio {
namespace {

namespace fs = std::filesystem;
using apptest::kRecordingStarted;

struct TriggerCase {
    const char* name;
    bool hold;
    const char* start; // the command that starts the dictation
    const char* stop;  // and the one that ends it
};

class ShortcutTriggerEndToEnd : public apptest::DesktopFixture, public ::testing::WithParamInterface<TriggerCase> {
protected:
    ShortcutTriggerEndToEnd() : DesktopFixture("sprelio-e2e-trigger") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_FALSE(apptest::spokenText(apptest::kSentence).empty())
            << "festival's text2wave or ffmpeg could not make speech";
        apptest::storeRightAltShortcut(home.path(), GetParam().hold);
        launch();
    }
    std::string failureLogName() const override { return std::string("e2e-trigger-") + GetParam().name; }
    std::string rightAltId() {
        std::string listing;
        EXPECT_EQ(cli("shortcuts list", &listing), 0) << listing;
        std::istringstream in(listing);
        for (std::string line; std::getline(in, line);)
            if (line.find("\tRight Alt\t") != std::string::npos) return line.substr(0, 8);
        ADD_FAILURE() << "no shortcut on Right Alt in\n" << listing;
        return {};
    }
};

TEST_P(ShortcutTriggerEndToEnd, TheCommandLineDictatesAsTheKeyWould) {
    std::string command = GetParam().start;
    std::string stop = GetParam().stop;
    // "%" stands for the shortcut's ID; without one the command means the dictation shortcut.
    if (const auto at = command.find('%'); at != std::string::npos) command.replace(at, 1, rightAltId());
    if (const auto at = stop.find('%'); at != std::string::npos) stop.replace(at, 1, rightAltId());
    ASSERT_NO_FATAL_FAILURE(focusClient());

    std::string said;
    ASSERT_EQ(cli(command, &said), 0) << said;
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak();
    ASSERT_EQ(cli(stop, &said), 0) << said;
    ASSERT_TRUE(waitForDictation()) << "the test application shows: " << client->text();
    // The edges went in where the key's own events go.
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 61, isKeyDown: true"), GetParam().hold ? 1u : 2u);
    EXPECT_EQ(app->count(kRecordingStarted), 1u);
}

INSTANTIATE_TEST_SUITE_P(Edges, ShortcutTriggerEndToEnd,
                         ::testing::Values(TriggerCase{"TapTwiceOnTheDictationShortcut", false, "shortcuts tap",
                                                       "shortcuts tap"},
                                           TriggerCase{"PressAndReleaseByID", true, "shortcuts press %",
                                                       "shortcuts release %"}),
                         [](const ::testing::TestParamInfo<TriggerCase>& row) { return std::string(row.param.name); });

TEST(ShortcutTriggerCli, WithoutARunningApplicationThePressIsRefused) {
    platform::test::TemporaryFolder home{"sprelio-trigger-cli"};
    fs::create_directories(home.path() / "run");
    std::string said;
    EXPECT_EQ(apptest::runCli(home.path(), ":0", "shortcuts tap", &said), 3);
    EXPECT_NE(said.find("Sprelio is not running"), std::string::npos) << said;
    EXPECT_FALSE(fs::exists(home.path() / ".local/share/Sprelio")) << "a press without the application made a store";
}

} // namespace
} // namespace sprelio
