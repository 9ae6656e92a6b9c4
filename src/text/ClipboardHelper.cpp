#include "text/ClipboardHelper.h"

#include "base/Log.h"
#include "store/AppConstants.h"
#include "text/SyntheticKeystrokes.h"

namespace sprelio {

ClipboardHelper::ClipboardHelper(ClipboardHelperDependencies dependencies) : deps_(std::move(dependencies)) {}

ClipboardHelper::~ClipboardHelper() { lifetime_.expire(); }

bool ClipboardHelper::setString(const std::optional<std::string>& text, const std::string& caller) {
    // The text itself is the user's: the line says whether there was one, never what it was.
    logInfo("ClipboardHelper.setString() - caller: " + caller + " - setting clipboard to " +
            (text ? std::string(kPrivatized) : std::string("nil")));
    if (!text) {
        deps_.clipboard.clearContents();
        return true;
    }
    if (deps_.clipboard.setString(*text)) return true;
    logError("ClipboardHelper.setString() - the clipboard could not be set (caller: " + caller + ")");
    return false;
}

void ClipboardHelper::getString(std::function<void(std::string)> completion) {
    const auto alive = lifetime_.token();
    deps_.clipboard.readString([alive, completion = std::move(completion)](std::optional<std::string> text) {
        if (!alive) return;
        completion(text.value_or(""));
    });
}

void ClipboardHelper::getSelectedTextFromFrontmostApp(std::function<void(std::optional<std::string>)> completion) {
    if (!deps_.accessibilityTrusted || !deps_.accessibilityTrusted()) {
        logError("getSelectedTextFromFrontmostApp() - error: need Accessibility permissions");
        deps_.loop.post([completion = std::move(completion)] { completion(std::nullopt); });
        return;
    }
    const auto front = deps_.workspace.frontmostApplication();
    if (!front || front->processIdentifier <= 0) {
        logError("getSelectedTextFromFrontmostApp() - error: failed to get focused application");
        deps_.loop.post([completion = std::move(completion)] { completion(std::nullopt); });
        return;
    }
    const pid_t focused = front->processIdentifier;
    const auto alive = lifetime_.token();
    deps_.clipboard.readSelectedText(
        [alive, focused, completion = std::move(completion)](std::optional<platform::SelectedText> selected) {
            if (!alive) return;
            // A selection held by another application is not the focused application's selection.
            if (!selected || selected->ownerProcessIdentifier != focused) {
                logError("getSelectedTextFromFrontmostApp() - error: failed to get selected text");
                completion(std::nullopt);
                return;
            }
            if (selected->text.empty()) {
                completion(std::nullopt);
                return;
            }
            completion(std::move(selected->text));
        });
}

void ClipboardHelper::getStringWithCommandC(std::function<void(std::optional<std::string>)> completion) {
    const auto front = deps_.workspace.frontmostApplication();
    const std::string name = front && front->localizedName ? *front->localizedName : "";
    const std::uint64_t flags = deps_.constants.prefersPasteAndMatchStyle(name) ? kTerminalCopyFlags : kCopyFlags;
    postKeyEventsReleasingHeldModifiers(deps_.keyboard, {{kKeyC, true, flags}, {kKeyC, false, flags}});
    const auto alive = lifetime_.token();
    deps_.loop.postAfter(kCopyWait, [this, alive, completion = std::move(completion)]() mutable {
        if (!alive) return;
        deps_.clipboard.readString([alive, completion = std::move(completion)](std::optional<std::string> text) {
            if (!alive) return;
            completion(std::move(text));
        });
    });
}

} // namespace sprelio
