// Decoding while the user speaks, through the desktop application and its embedded server: a festival dictation of
// a sentence and of a minute gives the text with live decoding on and off, and a live stream that the server ends
// half-way still delivers the text by the ordinary upload, with one history entry.
#include <gtest/gtest.h>

#include "DesktopTestFixture.h"
#include "helpers/WordAccuracy.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using apptest::kRate;
using apptest::kRecordingStarted;
using apptest::kSentence;

// About sixty seconds of festival's speech.
constexpr const char* kMinute =
    "the weather today is sunny with a light wind from the west. we will meet at the office tomorrow morning at "
    "nine o clock. please bring the report and the list of questions for the new project. after the meeting we can "
    "have lunch at the small restaurant near the river. the train to the city leaves every hour from the main "
    "station. i would like to order two coffees and a glass of water please. the children are playing in the "
    "garden behind the house. my brother bought a new car last week and he drives it to work every day. the "
    "library opens at ten and closes at six in the evening. remember to call your mother before the end of the "
    "week. the music was loud but the people were happy and danced all night. we need more paper for the printer "
    "in the second room. the old bridge over the river was closed for repairs in the spring. our neighbours have "
    "two dogs and a black cat that sleeps on the wall. the shop on the corner sells fresh bread and cheese every "
    "morning. we watched a film about the history of the city and its people.";

struct Row {
    const char* name;
    const char* text;
    std::vector<std::string> environment;
    // Which path answered, as the embedded server reports it in the shared log.
    bool answeredLive;
    // The live stream was ended by the server before the key's release.
    bool brokenMidWay;
    // Of the words spoken, at least this share is in the delivered text (festival's voice, pocketsphinx's ear).
    double accuracy;
};

class LiveDecodingEndToEnd : public apptest::DesktopFixture, public ::testing::WithParamInterface<Row> {
protected:
    LiveDecodingEndToEnd() : DesktopFixture("sprelio-live") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_FALSE(apptest::spokenText(GetParam().text).empty())
            << "festival's text2wave or ffmpeg could not make speech";
    }
    std::string failureLogName() const override { return std::string("live-") + GetParam().name; }
};

TEST_P(LiveDecodingEndToEnd, AHeldKeyDictationDeliversTheSameTextOnce) {
    const auto& row = GetParam();
    apptest::storeRightAltShortcut(home.path(), true);
    ASSERT_NO_FATAL_FAILURE(launch(false, row.environment));
    ASSERT_NO_FATAL_FAILURE(focusClient());

    ASSERT_TRUE(server.run("xdotool keydown Alt_R"));
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    const auto& spoken = apptest::spokenText(row.text);
    const auto seconds = std::chrono::milliseconds(static_cast<std::int64_t>(spoken.size()) * 1000 / kRate);
    ASSERT_NO_FATAL_FAILURE(play(spoken, seconds + 15000ms, 300ms));
    if (row.brokenMidWay) {
        ASSERT_TRUE(app->waitForCount("ended without a live decoding", 1)) << "the server did not end the stream";
    }
    ASSERT_TRUE(server.run("xdotool keyup Alt_R"));

    // Without the live stream a long dictation is decoded after the release, at about real time.
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(row.text, client->text()) >= row.accuracy; },
                                 seconds + 30000ms))
        << "the test application shows: " << client->text();
    ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 1; }));
    EXPECT_EQ(history()[0]->level(), 4) << "success";
    const bool live = app->log().find("answered from the live stream") != std::string::npos;
    EXPECT_EQ(live, row.answeredLive);
    EXPECT_EQ(app->count("- answered from the live stream") + app->count("BackendServer.handleTranscribe() - caf/opus"),
              1u)
        << "one answer, by one path";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LiveDecodingEndToEnd,
    ::testing::Values(Row{"On", kSentence, {}, true, false, 0.8},
                      Row{"Off", kSentence, {"SPRELIO_LIVE_DECODING=off"}, false, false, 0.8},
                      Row{"EndedByTheServer", kSentence, {"SPRELIO_LIVE_DECODING_MAX_SECONDS=1"}, false, true, 0.8},
                      Row{"MinuteOn", kMinute, {}, true, false, 0.7},
                      Row{"MinuteOff", kMinute, {"SPRELIO_LIVE_DECODING=off"}, false, false, 0.7}),
    [](const ::testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

} // namespace
} // namespace sprelio
