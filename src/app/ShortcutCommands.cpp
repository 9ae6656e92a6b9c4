#include "app/ShortcutCommands.h"

#include <ostream>
#include <sstream>

#include "ai/IntelligenceItems.h"
#include "app/AppEnvironment.h"
#include "app/CommandSupport.h"
#include "base/Log.h"
#include "input/KeyCodes.h"
#include "input/KeyNames.h"
#include "input/KeyShortcutRecorder.h"
#include "input/KeyboardShortcutManager.h"
#include "input/ShortcutTrigger.h"
#include "platform/linux/InstanceSocket.h"
#include "platform/linux/X11KeyboardLayout.h"
#include "platform/loop/RealTimeLoop.h"
#include "shared/AppState.h"
#include "store/Persistence.h"
#include "store/UserShortcutCache.h"
#include "ui/ShortcutRows.h"

namespace sprelio::app {

namespace {

constexpr const char* kUsage =
    "shortcuts: expected list, set ID [--key KEY] [--hold|--tap], add ACTION [--item ITEM] --key KEY [--hold], "
    "remove ID, reset, or press|release|tap [ID]";

// No application runs, so nothing is grabbed: combinations are only written to the settings file, where the
// application registers them at its next start.
class UngrabbedInput final : public platform::GlobalInput {
public:
    void setEventHandler(EventHandler) override {}
    std::optional<Error> grabKey(std::uint16_t) override { return std::nullopt; }
    void ungrabKey(std::uint16_t) override {}
    std::optional<Error> grabButton(std::int64_t) override { return std::nullopt; }
    void ungrabButton(std::int64_t) override {}
    std::variant<platform::HotKeyId, Error> registerHotKey(const platform::KeyCombination&, std::function<void()>,
                                                           std::function<void()>) override {
        return ++next_;
    }
    void unregisterHotKey(platform::HotKeyId) override {}
    std::optional<Error> grabKeyboard() override { return std::nullopt; }
    void ungrabKeyboard() override {}
    int currentInputSource() const override { return 0; }
    void selectInputSource(int) override {}
    bool isAvailable() const override { return false; }

private:
    platform::HotKeyId next_ = 0;
};

struct Options {
    std::optional<std::string> key;
    std::optional<std::string> item;
    std::optional<std::string> language;
    std::optional<bool> hold;
    std::string error;
};

Options parseOptions(const std::vector<std::string>& args, std::size_t from) {
    Options options;
    for (std::size_t i = from; i < args.size(); ++i) {
        const std::string& word = args[i];
        const bool takesValue = word == "--key" || word == "--item" || word == "--language";
        if (takesValue && i + 1 >= args.size()) {
            options.error = word + " needs a value";
            return options;
        }
        if (word == "--key") options.key = args[++i];
        else if (word == "--item") options.item = args[++i];
        else if (word == "--language") options.language = args[++i];
        else if (word == "--hold") options.hold = true;
        else if (word == "--tap") options.hold = false;
        else {
            options.error = "unknown option \"" + word + "\"";
            return options;
        }
    }
    return options;
}

void list(const ShortcutRows& rows, std::ostream& out) {
    const auto all = rows.rows();
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& row = all[i];
        // The editor's empty row at the end is no shortcut.
        if (row.isEmpty() && i + 1 == all.size()) continue;
        std::string item = "-";
        if (row.needsItem && row.itemId)
            item = rows.itemTitle(*row.itemId) + " (" + row.completionType.value_or("paste") + ")";
        out << ShortcutRows::shortId(row.uuid) << "\t" << (row.keys.empty() ? "(no key)" : row.keys) << "\t"
            << row.actionText << "\t" << item << "\t" << (row.hold ? "hold" : "tap") << "\t"
            << row.languageCode.value_or("-") << "\n";
    }
}

bool isTriggerVerb(const std::string& verb) { return verb == "press" || verb == "release" || verb == "tap"; }

} // namespace

int runShortcutTriggerCommand(const std::vector<std::string>& args, ShortcutRows& rows, ShortcutTrigger& trigger,
                              std::ostream& err) {
    if (args.size() < 2 || !isTriggerVerb(args[1])) return fail(err, kUsage, 2);
    const std::string& verb = args[1];
    if (args.size() > 3) return fail(err, "shortcuts " + verb + ": takes at most the ID", 2);
    std::optional<Uuid> uuid;
    if (args.size() == 3) {
        auto found = rows.findRow(args[2]);
        if (const auto* problem = std::get_if<std::string>(&found))
            return fail(err, "shortcuts " + verb + ": " + *problem);
        uuid = std::get<Uuid>(found);
    } else {
        uuid = trigger.dictationShortcut();
        if (!uuid)
            return fail(err, "shortcuts " + verb +
                                 ": there is no dictation shortcut (recordAndTranscribe with a key); name one by its "
                                 "ID (sprelio shortcuts list)");
    }
    const auto edges = verb == "tap" ? std::vector{ShortcutTrigger::Edge::press, ShortcutTrigger::Edge::release}
                       : verb == "press" ? std::vector{ShortcutTrigger::Edge::press}
                                         : std::vector{ShortcutTrigger::Edge::release};
    for (const auto edge : edges) {
        if (auto problem = trigger.trigger(*uuid, edge))
            return fail(err, "shortcuts " + verb + " " + ShortcutRows::shortId(*uuid) + ": " + *problem);
    }
    logInfo("sprelio shortcuts " + verb + " - " + uuid->string());
    return 0;
}

int runShortcutCommand(const std::vector<std::string>& args, ShortcutRows& rows, KeyCodes& keyCodes,
                       std::ostream& out, std::ostream& err) {
    if (args.size() < 2) return fail(err, kUsage, 2);
    const std::string& verb = args[1];
    if (verb == "list" || verb == "reset") {
        if (args.size() != 2) return fail(err, "shortcuts " + verb + ": takes no arguments", 2);
        if (verb == "list") {
            list(rows, out);
            return 0;
        }
        rows.reset();
        logInfo("sprelio shortcuts reset - the default set is back");
        out << "The default shortcuts are back.\n";
        return 0;
    }
    if (verb != "set" && verb != "add" && verb != "remove") return fail(err, kUsage, 2);
    if (args.size() < 3) return fail(err, "shortcuts " + verb + ": expected " + (verb == "add" ? "ACTION" : "ID"), 2);

    const auto options = parseOptions(args, 3);
    if (!options.error.empty()) return fail(err, "shortcuts " + verb + ": " + options.error, 2);
    std::optional<KeySpec> key;
    if (options.key) {
        auto parsed = parseLinuxKey(*options.key, keyCodes);
        if (const auto* problem = std::get_if<std::string>(&parsed))
            return fail(err, "shortcuts " + verb + ": " + *problem, 2);
        key = std::get<KeySpec>(parsed);
    }

    if (verb == "add") {
        const auto action = shortcutActionFromRawValue(args[2]);
        if (!action) {
            std::string names;
            for (const auto a : allShortcutActions()) names += (names.empty() ? "" : ", ") + std::string(shortcutActionRawValue(a));
            return fail(err, "shortcuts add: unknown action \"" + args[2] + "\" (one of " + names + ")", 2);
        }
        if (!key) return fail(err, "shortcuts add: --key KEY is needed", 2);
        std::optional<std::string> itemId;
        if (options.item) {
            itemId = intelligenceItemIdFromArgument(*options.item);
            if (classifyIntelligenceItem(*itemId).kind == IntelligenceItem::Kind::notFound &&
                rows.itemTitle(*itemId) == *itemId)
                return fail(err, "shortcuts add: unknown AI item \"" + *options.item + "\"", 2);
        }
        auto added = rows.add(*action, itemId, *key);
        if (const auto* problem = std::get_if<std::string>(&added)) return fail(err, "shortcuts add: " + *problem);
        const Uuid uuid = std::get<Uuid>(added);
        if (options.hold) {
            if (auto problem = rows.setHold(uuid, *options.hold)) return fail(err, "shortcuts add: " + *problem);
        }
        if (options.language) rows.setLanguage(uuid, *options.language);
        logInfo("sprelio shortcuts add - added " + uuid.string());
        out << ShortcutRows::shortId(uuid) << "\n";
        return 0;
    }

    auto found = rows.findRow(args[2]);
    if (const auto* problem = std::get_if<std::string>(&found)) return fail(err, "shortcuts " + verb + ": " + *problem);
    const Uuid uuid = std::get<Uuid>(found);
    if (verb == "remove") {
        if (args.size() != 3) return fail(err, "shortcuts remove: takes only the ID", 2);
        if (auto problem = rows.remove(uuid)) return fail(err, "shortcuts remove: " + *problem);
        logInfo("sprelio shortcuts remove - removed " + uuid.string());
        return 0;
    }
    if (!key && !options.hold && !options.language && !options.item)
        return fail(err, "shortcuts set: nothing to change (--key KEY, --hold, --tap, --item ITEM, --language CODE)", 2);
    if (options.item) {
        if (auto problem = rows.setItem(uuid, intelligenceItemIdFromArgument(*options.item)))
            return fail(err, "shortcuts set: " + *problem);
    }
    if (options.hold) {
        if (auto problem = rows.setHold(uuid, *options.hold)) return fail(err, "shortcuts set: " + *problem);
    }
    if (options.language) rows.setLanguage(uuid, *options.language);
    if (key) {
        if (auto problem = rows.setKey(uuid, *key)) return fail(err, "shortcuts set: " + *problem);
    }
    logInfo("sprelio shortcuts set - changed " + uuid.string());
    return 0;
}

int shortcutCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    // The running application does it itself: its grabs and its copy of the shortcuts change with the store.
    std::ostringstream notRunning;
    const int status = platform::askRunningInstance({args.begin() + 1, args.end()}, out, notRunning);
    if (status != platform::kNoRunningInstance) {
        err << notRunning.str();
        return status;
    }
    // A press needs the application that acts on it; the store alone can do nothing with one.
    if (args.size() > 2 && isTriggerVerb(args[2])) {
        err << notRunning.str();
        return status;
    }

    AppEnvironment env;
    auto& context = env.persistence().container().viewContext();
    platform::RealTimeLoop loop;
    UngrabbedInput input;
    KeyboardShortcuts hotKeys(env.settingsStore(), input);
    // Letters are found where the desktop's layout has them; without a desktop, where QWERTY has them.
    platform::X11KeyboardLayout desktopLayout(loop);
    QwertyKeyboardLayout qwerty;
    KeyCodes keyCodes(desktopLayout.isAvailable() ? static_cast<platform::KeyboardLayout&>(desktopLayout) : qwerty);
    AppStateRealtimeMirror mirror;
    AppState appState(mirror);
    store::UserShortcutCache cache;
    KeyboardShortcutManager manager(
        KeyboardShortcutManagerDependencies{loop, context, env.settings(), hotKeys, keyCodes, appState, &cache, {}, {}});
    // As the application does at its start: a fresh store gets the default set.
    manager.setup();
    KeyShortcutRecorder recorder(KeyShortcutRecorderDependencies{context, manager, hotKeys, nullptr, nullptr, nullptr, {}});
    ShortcutRows rows(ShortcutRowsDependencies{context, manager, hotKeys, recorder, {}, {}});
    return runShortcutCommand({args.begin() + 1, args.end()}, rows, keyCodes, out, err);
}

} // namespace sprelio::app
