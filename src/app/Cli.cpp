#include "app/Cli.h"

#include <ostream>

#include "app/CommandSupport.h"
#include "app/AppEnvironment.h"
#include "app/AudioCommands.h"
#include "app/BackendCommands.h"
#include "app/FilesRemoteCommand.h"
#include "app/HistoryCommands.h"
#include "app/ShortcutCommands.h"
#include "app/SubstitutionCommands.h"
#include "app/UpdateCommand.h"
#include "base/BuildInfo.h"
#include "base/Log.h"
#include "platform/linux/InstanceSocket.h"

namespace sprelio::app {

namespace {

constexpr const char* kUsage = R"USAGE(Usage: sprelio [COMMAND]

Sprelio is a dictation assistant: hold or tap a hotkey, speak, and the text appears where you type.

Commands:
  (none)                        start the desktop application
  settings list                 every setting with its value; "(default)" marks values not set by you
  settings get KEY              print one setting's value
  settings set KEY VALUE        change a setting (booleans true/false, lists and dictionaries as JSON)
  settings remove KEY           remove a setting, so that its default applies again
  substitute TEXT               print TEXT after the stored substitution rules
  substitutions list            the stored rules, one per line: INPUT, a tab, OUTPUT, in the order they apply
  substitutions add INPUT OUTPUT  add a rule (whole words, any letter case; the case of the match is kept)
  substitutions remove INPUT    remove the rules with exactly this INPUT
  devices                       the microphones: "*" marks the default input, then id, transport and name
  record --seconds N [--output PATH] [--device ID]
                                record N seconds from the default input (or device ID, which becomes the
                                default) and print the file's path; default path in the recordings folder
  transcribe FILE [--language CODE] [--item ITEM] [--diarization]
                                transcribe an audio file as a dictation and print the text; with --item
                                (an AI item: fixGrammar, formal, a language code to translate into, or its
                                id) print the AI result that comes with the transcript
  transcribe --long FILE [--diarization]
                                transcribe a long audio or video file as the Files tab does; progress on
                                stderr, the text on stdout
  ai ITEM TEXT [--language CODE]
                                run an AI action on TEXT and print the result: ITEM is a built-in prompt
                                (fixGrammar, improveWriting, addEmoji, askAI), a tone (formal, fun, ...), a
                                language code to translate into, a local step (uppercaseAll, ...) or an id;
                                --language names the language TEXT is in
  ai --preset NAME TEXT         the same with one of your AI presets
  account                       refresh and print the account, its backends, AI servers and models
  login EMAIL                   sign in: an e-mail with a link and a code is sent; waits for the link
  login --code CODE             finish the sign-in with the code from the e-mail
  logout                        sign out
  report TEXT [--no-logs]       send a problem report as the Send Report tab does: TEXT, the log archive
                                (or a note in its place with --no-logs) and the settings archive
  shortcuts list                the hotkeys, one per line: ID, keys, action, AI item, hold or tap, language
  shortcuts set ID [--key KEY] [--hold|--tap] [--item ITEM] [--language CODE]
                                change a hotkey; KEY as the list shows keys: "Right Ctrl", "Alt+Shift+D",
                                "Ctrl+F5", "Button 8" (X's button numbers); a running Sprelio takes it at once
  shortcuts add ACTION [--item ITEM] --key KEY [--hold]
                                a new hotkey; ACTION is an action's name (recordAndTranscribe,
                                recordAndProcessWithAI, copyTextAndAskAI, showHistory, ...)
  shortcuts remove ID           remove a hotkey
  shortcuts reset               the default hotkeys in place of yours
  shortcuts press|release|tap [ID]
                                the hotkey's key goes down, up, or both in the running Sprelio, as if pressed
                                (the dictation hotkey without ID): for a compositor's key binding on Wayland
  history list                  the history, newest first: [ID], level, date, duration, recording, text
  history retry ID              transcribe an entry's recording again (a success adds a new entry)
  history remove ID             remove an entry and its recording
  history wipe                  remove every entry and every recording they name
  continuous start|stop         in the running application: listen continuously, and at each pause type
                                what was said into the application in front; or stop listening
  files add FILE...             in the running application: transcribe audio or video files in the Files tab;
                                progress on stderr, each text on stdout
  files record --mode microphone|system|both --seconds N
                                in the running application: record the microphone, the computer's sound, or
                                both (a file each) for N seconds, print the files, and transcribe them there
  update check                  ask the update feed what it offers and whether it is newer than this version
  --help, -h                    this text
  --version, -v                 version and build

Files: settings in $XDG_CONFIG_HOME/Sprelio/settings.json; data and logs in $XDG_DATA_HOME/Sprelio.
The account API is the setting apiBaseURL (or $SPRELIO_API_BASE_URL); "embedded", the default, runs the bundled
server in the process, offline, with its local account.
Updates come from the feed in the setting updateFeedURL (or $SPRELIO_UPDATE_FEED_URL); "" turns checks off.
)USAGE";

// Strings print as they are so that scripts can use the output directly; everything else as JSON.
std::string printable(const nlohmann::json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_null()) return "(none)";
    return value.dump();
}

bool isKnownKey(std::string_view key) {
    return store::Settings::describe(key) != nullptr || key.starts_with(store::kKeyboardShortcutsPrefix);
}

int settingsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() < 3) return fail(err, "settings: expected list, get KEY, set KEY VALUE or remove KEY", 2);
    const std::string& verb = args[2];
    const std::size_t expected = verb == "list" ? 3 : verb == "set" ? 5 : 4;
    if (verb != "list" && verb != "get" && verb != "set" && verb != "remove")
        return fail(err, "settings: unknown action \"" + verb + "\" (use list, get, set or remove)", 2);
    if (args.size() != expected)
        return fail(err, "settings " + verb + ": wrong number of arguments (see sprelio --help)", 2);

    AppEnvironment env;
    auto& settings = env.settings();
    auto& store = env.settingsStore();

    if (verb == "list") {
        const auto stored = store.dictionaryRepresentation();
        for (const auto& description : store::Settings::catalogue()) {
            const bool isSet = stored.contains(description.key);
            out << description.key << " = " << printable(settings.value(description.key))
                << (isSet ? "" : " (default)") << "\n";
        }
        // Keys that belong to no catalogue entry (hotkeys, keys of newer builds) are shown too: they are the user's.
        for (const auto& [key, value] : stored) {
            if (!store::Settings::describe(key)) out << key << " = " << printable(value) << "\n";
        }
        return 0;
    }

    const std::string& key = args[3];
    if (verb == "get") {
        if (store::Settings::describe(key)) {
            out << printable(settings.value(key)) << "\n";
            return 0;
        }
        if (auto value = store.object(key)) {
            out << printable(*value) << "\n";
            return 0;
        }
        return fail(err, "settings get: unknown setting \"" + key + "\"");
    }
    if (!isKnownKey(key)) return fail(err, "settings " + verb + ": unknown setting \"" + key + "\"");

    if (verb == "remove") {
        store.remove(key);
        if (!store.lastWriteSucceeded()) return fail(err, "settings remove: could not write " + store.path().string());
        logInfo("sprelio settings remove - removed " + key);
        return 0;
    }

    std::string reason;
    auto value = store::Settings::parseValue(key, args[4], &reason);
    if (!value) return fail(err, "settings set: invalid value for \"" + key + "\": " + reason);
    store.set(key, *value);
    if (!store.lastWriteSucceeded()) return fail(err, "settings set: could not write " + store.path().string());
    logInfo("sprelio settings set - changed " + key);
    return 0;
}

} // namespace

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const std::function<int()>& startDesktop) {
    if (args.size() <= 1) return startDesktop ? startDesktop() : 0;
    const std::string& command = args[1];
    if (command == "--help" || command == "-h" || command == "help") {
        out << kUsage;
        return 0;
    }
    if (command == "--version" || command == "-v") {
        out << "Sprelio " << build::kVersion << " (build " << build::kBuild << ")\n";
        return 0;
    }
    if (command == "settings") return settingsCommand(args, out, err);
    if (command == "substitute" || command == "substitutions") return substitutionCommand(args, out, err);
    if (command == "devices" || command == "record") return audioCommand(args, out, err);
    if (command == "transcribe" || command == "ai" || command == "account" || command == "login" ||
        command == "logout" || command == "report")
        return backendCommand(args, out, err);
    if (command == "history") return historyCommand(args, out, err);
    if (command == "shortcuts") return shortcutCommand(args, out, err);
    if (command == "update") return updateCommand(args, out, err);
    if (command == "files") return filesCommand(args, out, err);
    if (command == "continuous") {
        if (args.size() != 3 || (args[2] != "start" && args[2] != "stop"))
            return fail(err, "usage: sprelio continuous start|stop", 2);
        return platform::askRunningInstance({args.begin() + 1, args.end()}, out, err);
    }
    return fail(err, "unknown command \"" + command + "\" (see sprelio --help)", 2);
}

} // namespace sprelio::app
