#pragma once
// The results dialog, where a text waits for the user's decision: it stands in an editor beside the catalogue's
// items, the user picks an item with the keys or the mouse, runs it on the text as often as wanted, edits the text
// by hand, takes an AI step back, and finally pastes the result into the application that was in front.
//
// This is the dialog's logic; its window (`ResultsDialogWindow`) only shows what this says and reports keys,
// clicks and its closing. The dialog is an ordinary window of the desktop and hears keys only while it is the key
// window: nothing here grabs the keyboard.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceItems.h"
#include "ai/ResultsWindow.h"
#include "base/LifetimeGuard.h"
#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"
#include "platform/OverlayPanels.h"
#include "platform/Screens.h"

namespace sprelio {

class IntelligenceViewModelImpl;
namespace store {
class Settings;
}

// The dialog's window as its logic drives it. Frames are in the logic's coordinates.
class ResultsDialogWindow {
public:
    virtual ~ResultsDialogWindow() = default;
    // Puts the window on screen at the frame, or where the desktop places a new window when there is none.
    virtual void show(const std::optional<platform::Rect>& frame) = 0;
    // Brings the window in front of the others and gives it the keyboard.
    virtual void makeKeyAndOrderFront() = 0;
    virtual bool isKeyWindow() const = 0;
    // Takes the window away; it reports its closing through IntelligenceResultsView::windowWillClose.
    virtual void close() = 0;
    // What the dialog shows has changed: its text, the items, the selection or the editor's state.
    virtual void refresh() = 0;
};

class IntelligenceResultsView final : public ResultsWindow {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        store::Settings& settings;
        platform::Workspace& workspace;
        const platform::Screens& screens;
        const platform::PointerLocation& pointer;
        IntelligenceViewModelImpl& intelligenceViewModel;
        std::string windowTitle;
        // Sprelio's own: the application in front is noted as the paste target only when it is another one.
        std::string bundleIdentifier;
        // The session's return to idle, and its delivery of a text into the application in front.
        std::function<void()> setupMenuWithMainMenu;
        std::function<void(const std::string& text)> performPasting;
    };

    // The keys the dialog answers, as key codes and event flags.
    static constexpr std::uint16_t kReturnKeyCode = 36;
    static constexpr std::uint16_t kTabKeyCode = 48;
    static constexpr std::uint16_t kEscapeKeyCode = 53;
    static constexpr std::uint16_t kZKeyCode = 6;
    static constexpr std::uint16_t kPageUpKeyCode = 116;
    static constexpr std::uint16_t kPageDownKeyCode = 121;
    static constexpr std::uint16_t kLeftArrowKeyCode = 123;
    static constexpr std::uint16_t kRightArrowKeyCode = 124;
    static constexpr std::uint16_t kDownArrowKeyCode = 125;
    static constexpr std::uint16_t kUpArrowKeyCode = 126;
    static constexpr std::uint64_t kCommandFlag = 0x100000;
    // Modifier bits live above the low 16 bits of the flags; below them are the device's own bits.
    static constexpr std::uint64_t kModifierBits = ~std::uint64_t{0xFFFF};
    // A window opened at the pointer without a stored size.
    static constexpr double kDefaultWidth = 880;
    static constexpr double kDefaultHeight = 480;
    // How long the application the text goes back to may take to come in front before it is pasted into anyway.
    static constexpr platform::Duration kFocusWait = std::chrono::milliseconds(1000);
    static constexpr platform::Duration kFocusPoll = std::chrono::milliseconds(20);

    explicit IntelligenceResultsView(Dependencies deps);
    ~IntelligenceResultsView() override;
    IntelligenceResultsView(const IntelligenceResultsView&) = delete;
    IntelligenceResultsView& operator=(const IntelligenceResultsView&) = delete;

    void setWindow(ResultsDialogWindow* window) { window_ = window; }

    // Opens the dialog with the text. When it stands open already the text replaces the editor's, and the former
    // text is kept for the undo of an AI step.
    void showCompletion(const std::string& text) override;

    // ---- What the dialog shows ----
    bool isOpen() const { return open_; }
    const std::string& windowTitle() const { return deps_.windowTitle; }
    const std::string& selectedItemId() const { return selectedItemId_; }
    const std::string& generatedText() const { return generatedText_; }
    bool isEditorEnabledByTapGesture() const { return isEditorEnabledByTapGesture_; }
    // Former texts that Command+Z brings back, the last one first.
    std::size_t undoDepth() const { return formerTexts_.size(); }
    struct Item {
        IntelligenceRow row;
        std::string id;
        std::string title;
        std::string emoji;
    };
    // The catalogue's items in their order, row by row.
    std::vector<Item> items() const;

    // ---- What the window reports ----
    // A key pressed while the dialog is the key window. True when the dialog took it; otherwise it belongs to the
    // editor.
    bool keyDown(std::uint16_t keyCode, std::uint64_t flags);
    // The user clicked into the editor, which then takes Tab for leaving it.
    void editorTapped();
    // The user changed the text by hand.
    void editorTextChanged(const std::string& text);
    // A click on an item: the left button runs it and closes the dialog, like Return; the right button runs it and
    // keeps the dialog, so that the result lands in the editor for a further step.
    void leftClick(const std::string& itemId);
    void rightClick(const std::string& itemId);
    // The window is closing, whoever closed it.
    void windowWillClose();

    // ---- Actions ----
    // Takes back the last AI step on the text; false when there is none.
    bool undoLastAIOperation();
    void close();
    // The way back: the dialog closes, the application that was in front before it comes back to the front, and
    // the text (unless empty) is pasted there.
    void pasteToPreviousWindowThenClose(const std::string& text);

private:
    void open(const std::string& text);
    std::optional<platform::Rect> openingFrame() const;
    void onAppear();
    void bringForwardAfterIdle();
    void runSelectedItemAndClose();
    void select(const std::string& itemId);
    // One step through the items (±1), and one row up or down (±1).
    void selectionStep(int step);
    void rowStep(int step);
    void waitForFocusThenPaste(const platform::RunningApplication& target, const std::string& text,
                               platform::Duration waited);
    void finishPaste(const std::string& text, bool success);
    void refresh();

    Dependencies deps_;
    ResultsDialogWindow* window_ = nullptr;
    bool open_ = false;
    std::string selectedItemId_;
    std::string generatedText_;
    bool isEditorEnabledByTapGesture_ = false;
    std::vector<std::string> formerTexts_;
    std::optional<platform::RunningApplication> previousApp_;
    std::shared_ptr<platform::Timer> focusTimer_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
