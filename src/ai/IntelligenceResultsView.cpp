#include "ai/IntelligenceResultsView.h"

#include <algorithm>
#include <utility>

#include "ai/IntelligenceViewModelImpl.h"
#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr unsigned kActivateIgnoringOtherApps = 2;

bool contains(const platform::Rect& frame, double x, double y) {
    return x >= frame.minX() && x < frame.maxX() && y >= frame.minY() && y < frame.maxY();
}

const char* boolText(bool value) { return value ? "true" : "false"; }

} // namespace

IntelligenceResultsView::IntelligenceResultsView(Dependencies deps) : deps_(std::move(deps)) {}

IntelligenceResultsView::~IntelligenceResultsView() {
    lifetime_.expire();
    if (focusTimer_) focusTimer_->invalidate();
}

void IntelligenceResultsView::showCompletion(const std::string& text) {
    if (!open_) {
        open(text);
        return;
    }
    if (text != generatedText_) {
        formerTexts_.push_back(generatedText_);
        generatedText_ = text;
    }
    refresh();
    // The step that brought the text is over: the session returns to idle (its AI overlay goes).
    if (deps_.setupMenuWithMainMenu) deps_.setupMenuWithMainMenu();
    bringForwardAfterIdle();
}

void IntelligenceResultsView::open(const std::string& text) {
    // The text goes back where the user was: that application is noted before the dialog takes the front.
    const auto frontmost = deps_.workspace.frontmostApplication();
    previousApp_ = frontmost && frontmost->bundleIdentifier != deps_.bundleIdentifier ? frontmost : std::nullopt;
    generatedText_ = text;
    formerTexts_.clear();
    isEditorEnabledByTapGesture_ = false;
    selectedItemId_ = deps_.settings.intelligenceResultsView_selectedItemId();
    open_ = true;
    if (window_) window_->show(openingFrame());
    onAppear();
    bringForwardAfterIdle();
}

// The return to idle hands the focus back to the application the session noted; the dialog takes it after that.
void IntelligenceResultsView::bringForwardAfterIdle() {
    const auto alive = lifetime_.token();
    deps_.loop.post([this, alive] {
        if (alive && open_ && window_) window_->makeKeyAndOrderFront();
    });
}

std::optional<platform::Rect> IntelligenceResultsView::openingFrame() const {
    const auto stored = deps_.settings.intelligenceResultsViewFrame();
    const auto screens = deps_.screens.screens();
    if (deps_.settings.showAIResultsViewAtCursorPosition()) {
        if (const auto mouse = deps_.pointer.mouseLocation()) {
            const double width = stored ? stored->width : kDefaultWidth;
            const double height = stored ? stored->height : kDefaultHeight;
            // The top left corner at the pointer, moved as little as needed to keep the window on its screen.
            platform::Rect frame{mouse->x, mouse->y - height, width, height};
            for (const auto& screen : screens) {
                const auto& area = screen.frame;
                if (!contains(area, mouse->x, mouse->y)) continue;
                frame.x = std::max(area.minX(), std::min(frame.x, area.maxX() - width));
                frame.y = std::min(area.maxY() - height, std::max(frame.y, area.minY()));
                break;
            }
            return frame;
        }
    }
    // A stored frame whose screen has gone would open the window out of sight.
    if (stored && std::any_of(screens.begin(), screens.end(), [&](const platform::ScreenInfo& screen) {
            return contains(screen.frame, stored->midX(), stored->midY());
        }))
        return stored;
    return std::nullopt;
}

void IntelligenceResultsView::onAppear() {
    deps_.intelligenceViewModel.updateFilteredIntelligencePresets("IntelligenceResultsView.onAppear");
    logInfo("IntelligenceResultsView.selectedItemId: " + selectedItemId_);
    logInfo("IntelligenceResultsView.generatedText: " + std::string(kPrivatized));
    // From here on the session is idle: a new dictation may start while the dialog stands open.
    if (deps_.setupMenuWithMainMenu) deps_.setupMenuWithMainMenu();
    refresh();
}

std::vector<IntelligenceResultsView::Item> IntelligenceResultsView::items() const {
    std::vector<Item> list;
    const auto& catalogue = deps_.intelligenceViewModel;
    for (const auto& [row, id] : catalogue.orderedItems()) {
        if (id) list.push_back({row, *id, catalogue.getTitleForItem(*id), catalogue.getEmojiForItem(*id)});
    }
    return list;
}

bool IntelligenceResultsView::keyDown(std::uint16_t keyCode, std::uint64_t flags) {
    if (!open_ || !window_ || !window_->isKeyWindow()) return false;
    const std::uint64_t modifiers = flags & kModifierBits;
    if (modifiers == 0) {
        switch (keyCode) {
        case kReturnKeyCode:
            isEditorEnabledByTapGesture_ = false;
            runSelectedItemAndClose();
            return true;
        case kTabKeyCode:
            if (isEditorEnabledByTapGesture_) {
                isEditorEnabledByTapGesture_ = false;
                refresh();
            } else {
                selectionStep(1);
            }
            return true;
        case kEscapeKeyCode:
            isEditorEnabledByTapGesture_ = false;
            close();
            return true;
        default: return false; // the editor's
        }
    }
    if (keyCode == kReturnKeyCode && modifiers == kCommandFlag) {
        isEditorEnabledByTapGesture_ = false;
        const auto alive = lifetime_.token();
        deps_.loop.post([this, alive] {
            if (alive) pasteToPreviousWindowThenClose(generatedText_);
        });
        return true;
    }
    // With no AI step to take back, Command+Z is the editor's own undo of typing.
    if (keyCode == kZKeyCode && modifiers == kCommandFlag) return undoLastAIOperation();
    // Arrow and page keys carry modifier bits of their own, so the others held with them are not looked at.
    switch (keyCode) {
    case kPageUpKeyCode:
    case kLeftArrowKeyCode:
        isEditorEnabledByTapGesture_ = false;
        selectionStep(-1);
        return true;
    case kPageDownKeyCode:
    case kRightArrowKeyCode:
        isEditorEnabledByTapGesture_ = false;
        selectionStep(1);
        return true;
    case kDownArrowKeyCode:
        isEditorEnabledByTapGesture_ = false;
        rowStep(1);
        return true;
    case kUpArrowKeyCode:
        isEditorEnabledByTapGesture_ = false;
        rowStep(-1);
        return true;
    default: return false;
    }
}

void IntelligenceResultsView::runSelectedItemAndClose() {
    deps_.intelligenceViewModel.executeActionForItemWithText(selectedItemId_, generatedText_, true, false,
                                                             std::nullopt);
    close();
}

void IntelligenceResultsView::editorTapped() {
    if (isEditorEnabledByTapGesture_) return;
    isEditorEnabledByTapGesture_ = true;
    refresh();
}

void IntelligenceResultsView::editorTextChanged(const std::string& text) { generatedText_ = text; }

void IntelligenceResultsView::leftClick(const std::string& itemId) {
    if (!open_) return;
    select(itemId);
    isEditorEnabledByTapGesture_ = false;
    runSelectedItemAndClose();
}

void IntelligenceResultsView::rightClick(const std::string& itemId) {
    if (!open_) return;
    select(itemId);
    deps_.intelligenceViewModel.executeActionForItemWithText(itemId, generatedText_, false, false, std::nullopt);
}

void IntelligenceResultsView::select(const std::string& itemId) {
    selectedItemId_ = itemId;
    deps_.settings.setIntelligenceResultsView_selectedItemId(itemId);
    refresh();
}

// At either end of the items the step goes round to the other end. A selection that is not among the items
// (nothing chosen yet, or an item that has left the catalogue) steps to the first item forwards and to the last
// one backwards.
void IntelligenceResultsView::selectionStep(int step) {
    std::vector<std::string> ids;
    for (const auto& [row, id] : deps_.intelligenceViewModel.orderedItems()) {
        if (id) ids.push_back(*id);
    }
    if (ids.empty()) return;
    const auto count = static_cast<long>(ids.size());
    const auto at = std::find(ids.begin(), ids.end(), selectedItemId_);
    long index = step > 0 ? 0 : count - 1;
    if (at != ids.end()) index = ((at - ids.begin()) + step % count + count) % count;
    select(ids[static_cast<std::size_t>(index)]);
}

// A row step keeps the place within the row where the new row is long enough, and takes its last item where it
// is not; rows without items are passed over, and the rows go round like the items.
void IntelligenceResultsView::rowStep(int step) {
    std::vector<std::vector<std::string>> rows;
    for (const auto row : kIntelligenceRows) {
        std::vector<std::string> ids;
        const auto& all = deps_.intelligenceViewModel.rows();
        if (const auto found = all.find(row); found != all.end()) {
            for (const auto& id : found->second)
                if (id) ids.push_back(*id);
        }
        if (!ids.empty()) rows.push_back(std::move(ids));
    }
    if (rows.empty()) return;
    const auto count = static_cast<long>(rows.size());
    long rowIndex = -1;
    std::size_t place = 0;
    for (std::size_t r = 0; r < rows.size() && rowIndex < 0; ++r) {
        const auto at = std::find(rows[r].begin(), rows[r].end(), selectedItemId_);
        if (at != rows[r].end()) {
            rowIndex = static_cast<long>(r);
            place = static_cast<std::size_t>(at - rows[r].begin());
        }
    }
    const long target = rowIndex < 0 ? (step > 0 ? 0 : count - 1) : ((rowIndex + step % count + count) % count);
    const auto& ids = rows[static_cast<std::size_t>(target)];
    select(ids[std::min(place, ids.size() - 1)]);
}

bool IntelligenceResultsView::undoLastAIOperation() {
    if (formerTexts_.empty()) return false;
    generatedText_ = formerTexts_.back();
    formerTexts_.pop_back();
    logInfo("IntelligenceResultsView.undoLastAIOperation() - former text restored, " +
            std::to_string(formerTexts_.size()) + " left");
    refresh();
    return true;
}

void IntelligenceResultsView::close() {
    if (!open_) return;
    if (deps_.setupMenuWithMainMenu) deps_.setupMenuWithMainMenu();
    if (window_) window_->close();
    // A window that reported nothing is gone all the same.
    open_ = false;
}

void IntelligenceResultsView::windowWillClose() {
    if (!open_) return;
    open_ = false;
    isEditorEnabledByTapGesture_ = false;
    logInfo("intelligenceResultViewControllerWillClose() - window " + deps_.windowTitle +
            " will close, performing cleanup");
    if (deps_.setupMenuWithMainMenu) deps_.setupMenuWithMainMenu();
}

void IntelligenceResultsView::pasteToPreviousWindowThenClose(const std::string& text) {
    close();
    if (focusTimer_) focusTimer_->invalidate();
    const auto target = std::exchange(previousApp_, std::nullopt);
    if (!target || !deps_.workspace.activate(*target, kActivateIgnoringOtherApps)) {
        finishPaste(text, false);
        return;
    }
    waitForFocusThenPaste(*target, text, platform::Duration::zero());
}

// A paste keystroke goes to whatever has the keyboard: it waits until the desktop has put the application back in
// front, and goes there anyway once the wait is over, since the dialog that stood in the way is gone.
void IntelligenceResultsView::waitForFocusThenPaste(const platform::RunningApplication& target,
                                                    const std::string& text, platform::Duration waited) {
    const auto frontmost = deps_.workspace.frontmostApplication();
    if (frontmost && frontmost->processIdentifier == target.processIdentifier) {
        finishPaste(text, true);
        return;
    }
    if (waited >= kFocusWait) {
        finishPaste(text, false);
        return;
    }
    const auto alive = lifetime_.token();
    focusTimer_ = deps_.loop.schedule(kFocusPoll, [this, alive, target, text, waited] {
        if (alive) waitForFocusThenPaste(target, text, waited + kFocusPoll);
    });
}

void IntelligenceResultsView::finishPaste(const std::string& text, bool success) {
    const std::string line = std::string("pasteToPreviousWindowThenClose() - success: ") + boolText(success) +
                             " with pasting " + std::string(kPrivatized);
    if (success) {
        logInfo(line);
    } else {
        logError(line);
    }
    if (!text.empty() && deps_.performPasting) deps_.performPasting(text);
}

void IntelligenceResultsView::refresh() {
    if (open_ && window_) window_->refresh();
}

} // namespace sprelio
