// The hotkey editor on a real X desktop: the Qt editor with its recorder, the real X11 input adapter, the tap and
// the managers, keys and buttons pressed as a keyboard and a mouse would (xdotool, XTEST). What it records is live
// at once; the keyboard is the recorder's only while it records; a combination another X client holds is refused
// with the editor saying so.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>


#include <memory>

#include "base/Digest.h"
#include "input/InputTestSupport.h"
#include "input/KeyShortcutRecorder.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/ShortcutEditor.h"
#include "ui/ShortcutRows.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;
using inputtest::FakeSession;

// Xlib's KeyPress, whose macro the desktop support takes away for Qt's sake.
constexpr int kXKeyPress = 2;

// Another X client: a window of its own that can take the focus and says which keys reached it, and that can try
// to grab the keyboard or a combination as any program may.
class OtherClient {
public:
    OtherClient() {
        display_ = XOpenDisplay(Desktop::instance().display().c_str());
        if (!display_) return;
        window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 600, 420, 300, 200, 0, 0, 0xbbccdd);
        XStoreName(display_, window_, "Other client");
        XSelectInput(display_, window_, KeyPressMask | FocusChangeMask | StructureNotifyMask);
        XMapRaised(display_, window_);
        XSync(display_, False);
    }
    ~OtherClient() {
        if (display_) XCloseDisplay(display_);
    }
    OtherClient(const OtherClient&) = delete;
    OtherClient& operator=(const OtherClient&) = delete;

    bool ok() const { return display_ != nullptr; }
    Window window() const { return window_; }
    // Whether this client could take the whole keyboard now (nobody else holds it); it lets go at once.
    bool canGrabKeyboard() {
        const int status = XGrabKeyboard(display_, DefaultRootWindow(display_), False, GrabModeAsync, GrabModeAsync,
                                         CurrentTime);
        XUngrabKeyboard(display_, CurrentTime);
        XSync(display_, False);
        return status == GrabSuccess;
    }
    // Takes the whole keyboard and keeps it, as an open menu of another program does.
    bool holdKeyboard() {
        const int status =
            XGrabKeyboard(display_, DefaultRootWindow(display_), False, GrabModeAsync, GrabModeAsync, CurrentTime);
        XSync(display_, False);
        return status == GrabSuccess;
    }
    void releaseKeyboard() {
        XUngrabKeyboard(display_, CurrentTime);
        XSync(display_, False);
    }
    void grabCombination(const char* keysym, unsigned modifiers) {
        XGrabKey(display_, XKeysymToKeycode(display_, XStringToKeysym(keysym)), modifiers,
                 DefaultRootWindow(display_), False, GrabModeAsync, GrabModeAsync);
        XSync(display_, False);
    }
    // The letters typed into the window so far.
    std::string typed() {
        while (XPending(display_)) {
            XEvent ev;
            XNextEvent(display_, &ev);
            if (ev.type != kXKeyPress) continue;
            // The letters' keysyms are named by the letters themselves.
            const char* name = XKeysymToString(XLookupKeysym(&ev.xkey, 0));
            if (name && std::string_view(name).size() == 1) typed_ += name;
        }
        return typed_;
    }

private:
    Display* display_ = nullptr;
    Window window_ = 0;
    std::string typed_;
};

class HotkeyEditorX11 : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_NE(desktoptest::application(&why), nullptr) << why;
        loop = std::make_unique<platform::QtMainLoop>();
        input = std::make_unique<platform::X11GlobalInput>(*loop, Desktop::instance().display());
        ASSERT_TRUE(input->isAvailable());
        hotKeys = std::make_unique<KeyboardShortcuts>(defaults, *input);
        keyboard = std::make_unique<KeyboardShortcutManager>(KeyboardShortcutManagerDependencies{
            *loop, context, settings, *hotKeys, keyCodes, appState, &cache, {}, {}});
        mouse = std::make_unique<MouseShortcutManager>(MouseShortcutManagerDependencies{
            *loop, appState, &cache, [this] { return tap->shouldHandleAsGlobal(); }, {}});
        keyboard->setActionDispatcher(&actions);
        mouse->setActionDispatcher(&actions);
        tap = std::make_unique<EventTapManager>(EventTapManagerDependencies{
            *loop, *input, tp, tp, mirror, *keyboard, *mouse, "com.sprelio.app", [] { return false; }, {}, {}, {}});
        context.setDidSave([this] { cache.update(context); });
        keyboard->setup();
        cache.update(context);
        keyboard->updateKeysSetFromUserShortcuts();
        tap->registerEventTap(false);
        ownWindowInFront();

        recorder = std::make_unique<KeyShortcutRecorder>(KeyShortcutRecorderDependencies{
            context, *keyboard, *hotKeys, tap.get(), mouse.get(), &tp, [this] { cache.update(context); }});
        rows = std::make_unique<ShortcutRows>(ShortcutRowsDependencies{
            context, *keyboard, *hotKeys, *recorder,
            [] {
                return std::vector<ShortcutItemChoice>{{md5Hex("addEmoji"), "😀 Add Emoji", false},
                                                       {md5Hex("improveWriting"), "✍️ Improve Writing", false},
                                                       {md5Hex("de"), "🇩🇪 German", true}};
            },
            [this] { cache.update(context); }});
        editor = std::make_unique<platform::ShortcutEditor>(platform::ShortcutEditorDependencies{
            *rows,
            [this] { return Desktop::instance().activeWindow() == static_cast<Window>(editor->window()->winId()); },
            {{"de", "German"}, {"en", "English"}}});
        editor->setWindowTitle(QStringLiteral("Hotkey editor"));
        editor->resize(1020, 640);
        editor->move(0, 0);
        editor->show();
        editor->activateWindow();
        ASSERT_TRUE(processUntil([&] { return editor->isActiveWindow(); })) << "the editor did not get the focus";
    }
    void TearDown() override {
        editor.reset();
        rows.reset();
        recorder.reset();
        tap.reset();
        mouse.reset();
        keyboard.reset();
        hotKeys.reset();
        input.reset();
        context.setDidSave({});
        desktoptest::settle();
    }
    // The tap's view of where events belong: our window in front and under the pointer, or another program.
    void ownWindowInFront() {
        tp.frontmost = platform::RunningApplication{7, "com.sprelio.app", "Sprelio"};
        mirror.setSelectedContentViewTab(ContentViewTab::settings);
        mirror.setUserIsHoveringContentView(true);
    }
    void anotherProgramInFront() { tp.frontmost = platform::RunningApplication{42, "org.gnome.gedit", "gedit"}; }

    // As the user clicks the editor's window: the window manager makes it the active one.
    void bringEditorForward() {
        ASSERT_TRUE(run("xdotool windowactivate --sync " + std::to_string(editor->window()->winId())));
        ASSERT_TRUE(processUntil([&] { return editor->isActiveWindow(); }));
    }
    Uuid rowWithKeys(const std::string& keys) {
        for (const auto& row : rows->rows())
            if (row.keys == keys) return row.uuid;
        ADD_FAILURE() << "no row with " << keys;
        return {};
    }
    QString shownKeys(const Uuid& uuid) { return editor->keyButton(uuid)->text(); }
    // A click on the row's key, as the user starts a recording.
    void startRecording(const Uuid& uuid) {
        ASSERT_TRUE(run(desktoptest::clickAt(editor->keyButton(uuid))));
        ASSERT_TRUE(processUntil([&] { return recorder->isRecording(); })) << "the click did not start recording";
        ASSERT_EQ(*recorder->recordingUuid(), uuid);
    }
    bool waitRecordingEnded() {
        return processUntil([&] { return !recorder->isRecording(); });
    }
    bool run(const std::string& command) { return Desktop::instance().run(command); }
    // Waits until the session was asked for exactly these calls.
    bool sessionSaw(const std::vector<std::string>& calls) {
        if (processUntil([&] { return session.calls == calls; })) return true;
        for (const auto& call : session.calls) ADD_FAILURE() << "the session was asked: " << call;
        return false;
    }

    platform::test::RecordingLogSink log;
    platform::test::TestPlatform tp;
    store::AppConstants constants{tp};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    store::PersistenceController persistence{tp.root(), true};
    store::ManagedObjectContext& context = persistence.container().viewContext();
    QwertyKeyboardLayout layout;
    KeyCodes keyCodes{layout};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    store::UserShortcutCache cache;
    FakeSession session;
    ShortcutActions actions{session, [] { return 10; }};
    std::unique_ptr<platform::QtMainLoop> loop;
    std::unique_ptr<platform::X11GlobalInput> input;
    std::unique_ptr<KeyboardShortcuts> hotKeys;
    std::unique_ptr<KeyboardShortcutManager> keyboard;
    std::unique_ptr<MouseShortcutManager> mouse;
    std::unique_ptr<EventTapManager> tap;
    std::unique_ptr<KeyShortcutRecorder> recorder;
    std::unique_ptr<ShortcutRows> rows;
    std::unique_ptr<platform::ShortcutEditor> editor;
};

TEST_F(HotkeyEditorX11, RightCtrlRecordedForDictationStartsItAndRightAltNoLonger) {
    const Uuid dictation = rowWithKeys("Right Alt");
    startRecording(dictation);
    EXPECT_EQ(shownKeys(dictation), "Press the keys… (Esc cancels)");
    desktoptest::saveScreenshot("hotkey-editor-recording");
    ASSERT_TRUE(run("xdotool keydown Control_R"));
    ASSERT_TRUE(processUntil([&] { return shownKeys(dictation) == "Right Ctrl"; })) << shownKeys(dictation).toStdString();
    ASSERT_TRUE(run("xdotool keyup Control_R"));
    ASSERT_TRUE(waitRecordingEnded());
    EXPECT_EQ(rows->row(dictation)->keys, "Right Ctrl");
    EXPECT_EQ(*keyboard->keysSet(), (std::set<std::uint16_t>{62}));
    OtherClient other;
    ASSERT_TRUE(other.ok());
    EXPECT_TRUE(other.canGrabKeyboard()) << "the recorder let go of the keyboard";

    anotherProgramInFront();
    ASSERT_TRUE(run("xdotool keydown Control_R"));
    ASSERT_TRUE(sessionSaw({"startTimer:10", "start:recordAndTranscribe"})) << session.calls.size();
    ASSERT_TRUE(run("xdotool keyup Control_R"));
    ASSERT_TRUE(run("xdotool keydown Alt_R"));
    ASSERT_TRUE(run("xdotool keyup Alt_R"));
    // A tap of the new key (the second) is the proof that everything before it was seen.
    ASSERT_TRUE(run("xdotool keydown Control_R"));
    ASSERT_TRUE(sessionSaw({"startTimer:10", "start:recordAndTranscribe", "stop:recordAndTranscribe"}))
        << "right Alt started or stopped something: " << session.calls.size();
    ASSERT_TRUE(run("xdotool keyup Control_R"));
}

TEST_F(HotkeyEditorX11, AltShiftDRecordedForAnAIActionRunsItAndNeverReachesTheApplication) {
    const Uuid emoji = rowWithKeys("Alt+S");
    startRecording(emoji);
    ASSERT_TRUE(run("xdotool key alt+shift+d"));
    ASSERT_TRUE(waitRecordingEnded());
    EXPECT_EQ(shownKeys(emoji), "Alt+Shift+D");
    EXPECT_EQ(hotKeys->getShortcut(emoji.string()), (CarbonShortcut{2, 0x800 | 0x200}));
    EXPECT_TRUE(hotKeys->isRegistered(emoji.string()));

    OtherClient other;
    ASSERT_TRUE(other.ok());
    ASSERT_TRUE(run("xdotool windowactivate --sync " + std::to_string(other.window())));
    ASSERT_TRUE(processUntil([&] { return Desktop::instance().inputFocus() == other.window(); }));
    anotherProgramInFront();
    ASSERT_TRUE(run("xdotool key alt+shift+d"));
    ASSERT_TRUE(sessionSaw({"startTimer:10", "start:recordAndProcessWithAI:" + md5Hex("addEmoji")}));
    ASSERT_TRUE(run("xdotool key x"));
    ASSERT_TRUE(processUntil([&] { return other.typed() == "x"; })) << other.typed();
    EXPECT_EQ(other.typed(), "x") << "the combination stayed with Sprelio, the letter reached the client";
}

TEST_F(HotkeyEditorX11, MouseButtonEightRecordedStartsADictation) {
    const Uuid fresh = rows->rows().back().uuid;
    startRecording(fresh);
    ASSERT_TRUE(run("xdotool click 8"));
    ASSERT_TRUE(waitRecordingEnded());
    EXPECT_EQ(rows->row(fresh)->keys, "Button 8");
    EXPECT_EQ(shownKeys(fresh), "Button 8");
    EXPECT_TRUE(rows->rows().back().isEmpty()) << "a new empty row for the next shortcut";

    anotherProgramInFront();
    ASSERT_TRUE(run("xdotool click 8"));
    ASSERT_TRUE(sessionSaw({"startTimer:10", "start:recordAndTranscribe"}));
}

TEST_F(HotkeyEditorX11, HoldTickedInTheEditorDictatesWhileTheKeyIsDown) {
    const Uuid dictation = rowWithKeys("Right Alt");
    ASSERT_TRUE(run(desktoptest::clickAt(editor->holdBox(dictation))));
    ASSERT_TRUE(processUntil([&] { return rows->row(dictation)->hold; }));
    EXPECT_TRUE(editor->holdBox(dictation)->isChecked());
    EXPECT_FALSE(editor->holdBox(rowWithKeys("Alt+H"))->isEnabled()) << "showing the history can't be held";

    anotherProgramInFront();
    ASSERT_TRUE(run("xdotool keydown Alt_R"));
    ASSERT_TRUE(sessionSaw({"start:recordAndTranscribe"}));
    ASSERT_TRUE(run("xdotool keyup Alt_R"));
    ASSERT_TRUE(sessionSaw({"start:recordAndTranscribe", "stop:recordAndTranscribe"}));
}

TEST_F(HotkeyEditorX11, EscapeAndLosingTheWindowGiveTheKeyboardBack) {
    OtherClient other;
    ASSERT_TRUE(other.ok());
    const Uuid dictation = rowWithKeys("Right Alt");

    startRecording(dictation);
    EXPECT_FALSE(other.canGrabKeyboard()) << "while recording, the keyboard is the recorder's";
    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(waitRecordingEnded());
    EXPECT_TRUE(other.canGrabKeyboard());
    EXPECT_EQ(shownKeys(dictation), "Right Alt");
    // Another client types right after.
    ASSERT_TRUE(run("xdotool windowactivate --sync " + std::to_string(other.window())));
    ASSERT_TRUE(processUntil([&] { return Desktop::instance().inputFocus() == other.window(); }));
    ASSERT_TRUE(run("xdotool type ok"));
    ASSERT_TRUE(processUntil([&] { return other.typed() == "ok"; })) << other.typed();

    // Another window becoming the active one ends a recording too.
    bringEditorForward();
    startRecording(dictation);
    ASSERT_TRUE(run("xdotool windowactivate " + std::to_string(other.window())));
    ASSERT_TRUE(waitRecordingEnded()) << "the recording outlived the focus";
    EXPECT_TRUE(other.canGrabKeyboard());

    // And so does the window closing.
    bringEditorForward();
    startRecording(dictation);
    editor->close();
    ASSERT_TRUE(waitRecordingEnded());
    EXPECT_TRUE(other.canGrabKeyboard());
    EXPECT_EQ(rows->row(dictation)->keys, "Right Alt");
}

TEST_F(HotkeyEditorX11, ACombinationAnotherClientHoldsIsRefusedAndTheOldKeyStays) {
    OtherClient other;
    ASSERT_TRUE(other.ok());
    other.grabCombination("d", Mod1Mask | ShiftMask);
    const Uuid emoji = rowWithKeys("Alt+S");
    startRecording(emoji);
    ASSERT_TRUE(run("xdotool key alt+shift+d"));
    ASSERT_TRUE(waitRecordingEnded());
    ASSERT_TRUE(processUntil([&] { return editor->messageLabel()->isVisible(); }))
        << static_cast<int>(recorder->lastOutcome()) << " " << recorder->lastMessage() << " / "
        << editor->messageLabel()->text().toStdString();
    EXPECT_EQ(editor->messageLabel()->text().toStdString(),
              "Alt+Shift+D is taken by another application, so the shortcut keeps Alt+S.");
    EXPECT_EQ(shownKeys(emoji), "Alt+S");
    EXPECT_EQ(hotKeys->getShortcut(emoji.string()), (CarbonShortcut{1, 0x800}));
    EXPECT_TRUE(hotKeys->isRegistered(emoji.string())) << "Alt+S still answers";
    EXPECT_TRUE(other.canGrabKeyboard());
    desktoptest::saveScreenshot("hotkey-editor-taken");

    anotherProgramInFront();
    ASSERT_TRUE(run("xdotool key alt+s"));
    ASSERT_TRUE(sessionSaw({"startTimer:10", "start:recordAndProcessWithAI:" + md5Hex("addEmoji")}));
}

TEST_F(HotkeyEditorX11, AKeyboardHeldByAnotherProgramEndsTheRecordingWithAMessage) {
    OtherClient other;
    ASSERT_TRUE(other.ok());
    ASSERT_TRUE(other.holdKeyboard());
    const Uuid dictation = rowWithKeys("Right Alt");
    ASSERT_TRUE(run(desktoptest::clickAt(editor->keyButton(dictation))));
    ASSERT_TRUE(processUntil([&] { return editor->messageLabel()->isVisible(); }))
        << static_cast<int>(recorder->lastOutcome()) << " " << recorder->lastMessage() << " / "
        << editor->messageLabel()->text().toStdString();
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(editor->messageLabel()->text().toStdString(),
              "Another program holds the keyboard; close its menu or dialog and try again.");
    EXPECT_EQ(shownKeys(dictation), "Right Alt");
    other.releaseKeyboard();
    // Once it has let go, recording works.
    startRecording(dictation);
    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(waitRecordingEnded());
}

} // namespace
} // namespace sprelio
