#include "app/BackendCommands.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <ctime>
#include <fstream>
#include <ostream>
#include <regex>
#include <sstream>

#include "ai/IntelligenceItems.h"
#include "app/BackendContext.h"
#include "audio/RecordingPathHelper.h"
#include "core/ShortcutAction.h"
#include "diagnostics/Log.h"
#include "store/AtomicFile.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/JsonFileSettingsStore.h"

namespace sprelio::app {

namespace {

namespace fs = std::filesystem;

// A dictation's upload may walk a chain of backends, each allowed two minutes; a long file may take as long as it
// is. Past these limits something is wrong beyond what the failure rules cover.
constexpr auto kTranscribeLimit = std::chrono::minutes(15);
constexpr auto kLongFileLimit = std::chrono::hours(6);
constexpr auto kAccountLimit = std::chrono::minutes(5);
// The link's long poll restarts itself until the user acts; a day is past any sensible wait.
constexpr auto kLoginLimit = std::chrono::hours(24);

constexpr const char* kSignInRequestFile = "sign-in-request";
// A sign-in finished by the code in another command is in the settings file within moments of the link's poll
// ending; how long to look, and how often.
constexpr auto kCodeSignInWait = std::chrono::seconds(15);
constexpr auto kSettingsRecheck = std::chrono::milliseconds(100);

// What the Files tab accepts.
constexpr std::array<std::string_view, 27> kAudioExtensions = {
    "wav", "oga", "ogg", "caf", "mp3", "opus", "aac", "flac", "m4a", "wma", "aiff", "aif", "pcm", "amr",
    "alac", "ape", "mid", "midi", "ra", "mka", "au", "ac3", "dts", "voc", "tta", "mp2", "aifc"};
constexpr std::array<std::string_view, 35> kVideoExtensions = {
    "mp4", "mov", "avi", "mkv",  "wmv", "flv", "m4v", "webm", "3gp", "mpeg", "mpg", "ogv",
    "mts", "m2ts", "vob", "rm",  "rmvb", "asf", "swf", "f4v", "divx", "xvid", "mxf", "ts",
    "dat", "drc", "mng", "qt",  "yuv", "ogm", "svi", "mp2", "mpv", "mpe", "mpg4"};

int fail(std::ostream& err, const std::string& message, int code = 1) {
    err << "sprelio: " << message << "\n";
    return code;
}

std::string joined(const std::vector<std::string>& items, const std::string& separator) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : separator) + item;
    return text;
}

std::optional<std::string> stringValue(const std::optional<nlohmann::json>& object, const char* key) {
    if (!object || !object->is_object()) return std::nullopt;
    auto it = object->find(key);
    if (it == object->end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::vector<std::string> configuredLanguageCodes(const store::Settings& settings) {
    std::vector<std::string> codes;
    for (const auto& language : settings.localizedTranslationLanguages()) {
        if (!language.code.empty()) codes.push_back(language.code);
    }
    return codes;
}

// An error the command ends with: shown through the message path like any other, and printed here only when the
// message path kept it back (a text already shown, or one the user asked never to see again): the command's
// outcome must be visible.
void reportFailure(BackendContext& context, std::ostream& err, const std::string& text) {
    if (!context.toasts().printed(text)) err << "sprelio: " << text << "\n";
}

// ---- transcribe ----

// The history keeps the recording of every request and removes it with its entry. A file named on the command line
// is the user's own: the history gets a name of its own for it in the recordings folder (a hard link, or a copy
// across file systems), so that removing an entry never deletes the user's file.
std::optional<fs::path> keepForHistory(AppEnvironment& env, const fs::path& file, std::string& problem) {
    std::error_code error;
    auto target = RecordingPathHelper::pathForDate(env.settings().saveRecordingsFolder(), env.clock().now(), error);
    if (error) {
        problem = "could not create the recordings folder " + target.folder.string() + ": " + error.message();
        return std::nullopt;
    }
    fs::path kept = target.file;
    kept.replace_extension(file.extension());
    // Two commands in the same millisecond must not share (or overwrite) one name.
    for (int n = 2; fs::exists(kept, error); ++n) {
        kept = target.file;
        kept.replace_filename(target.file.stem().string() + "-" + std::to_string(n) + file.extension().string());
    }
    fs::create_hard_link(file, kept, error);
    if (error) {
        error.clear();
        fs::copy_file(file, kept, fs::copy_options::none, error);
    }
    if (error) {
        problem = "could not keep " + file.string() + " in " + target.folder.string() + ": " + error.message();
        return std::nullopt;
    }
    logInfo("sprelio transcribe - keeping the file for the history as " + kept.string());
    return kept;
}

struct TranscribeOptions {
    fs::path file;
    std::optional<std::string> language;
    std::optional<std::string> item;
    bool diarization = false;
    bool longFile = false;
};

// The id of an item, given as its id or as the name it is made from ("fixGrammar", "formal", "de").
std::string itemIdFromArgument(const std::string& argument) {
    const bool isId = argument.size() == 32 && std::all_of(argument.begin(), argument.end(), [](unsigned char c) {
                          return std::isdigit(c) || (c >= 'a' && c <= 'f');
                      });
    return isId ? argument : intelligenceItemId(argument);
}

std::vector<std::string> presetIds(AppEnvironment& env) {
    std::vector<std::string> ids;
    auto presets = store::cdGetEntity<store::IntelligencePreset>(env.persistence().container().viewContext());
    if (!presets) return ids;
    for (const auto& preset : *presets) {
        if (auto uuid = preset->uuid()) ids.push_back(uuid->string());
    }
    return ids;
}

int transcribeRecording(const TranscribeOptions& options, std::ostream& out, std::ostream& err) {
    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "transcribe: " + startError);
    auto& settings = env.settings();
    auto& history = context.history();

    std::optional<AICompletionPromptId> prompt;
    if (options.item) {
        const std::string itemId = itemIdFromArgument(*options.item);
        prompt = promptIdForItemWithId(itemId, settings.aiLocalizedTranslationLanguages(), presetIds(env),
                                       settings.lastDetectedLanguageCode(), env.constants().appLanguageCode());
        if (!prompt) {
            return fail(err,
                        "transcribe: --item " + *options.item +
                            " is no item the server runs with the upload (a built-in prompt such as fixGrammar, a "
                            "tone such as formal, or a translation target of aiLocalizedTranslationLanguages)",
                        2);
        }
    }
    std::string keepProblem;
    const auto kept = keepForHistory(env, fs::absolute(options.file), keepProblem);
    if (!kept) return fail(err, "transcribe: " + keepProblem);
    const fs::path path = *kept;
    const ShortcutAction action = prompt              ? ShortcutAction::recordAndProcessWithAI
                                  : options.diarization ? ShortcutAction::voiceToDialog
                                                        : ShortcutAction::recordAndTranscribe;
    const Uuid requestID = Uuid::random();
    const std::string id = requestID.string();

    std::vector<std::string> languages;
    if (options.language) {
        languages.push_back(*options.language);
        logInfo("inputLanguageCodes{} - using explicit inputLanguageCode=" + *options.language);
    } else {
        languages = configuredLanguageCodes(settings);
        logInfo("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=" +
                joined(languages, ","));
    }
    logInfo("sprelio transcribe - requestID: " + id + " - action: " + std::string(shortcutActionRawValue(action)) +
            " - promptId: " + (prompt ? prompt->promptId : std::string("nil")) +
            ", diarization: " + (options.diarization ? "true" : "false") +
            ", inputLanguageCode: " + options.language.value_or("nil"));

    struct State {
        bool finished = false;
        int status = 1;
        std::optional<std::string> transcript;
        std::optional<std::string> printed;     // what goes to stdout
        std::optional<std::string> failureText; // what the command failed with
        std::optional<std::string> warning;
    } state;

    auto& upload = context.uploadManager();
    auto& loop = context.loop();
    auto& messages = context.messages();
    auto& appState = context.appState();
    auto finish = [&state](int status) {
        state.finished = true;
        state.status = status;
    };
    // Entries are written as tasks of their own, as every writer does; the command drains them before it ends.
    auto postHistory = [&loop, &history, path, requestID](HistoryManagerLogLevel level, std::string text) {
        loop.post([&history, level, text = std::move(text), path, requestID] {
            history.log(level, text, path, requestID, false);
        });
    };

    // The evaluation of the session: a transcript, an AI result, a server's message, an error, or nothing.
    std::function<void(std::optional<nlohmann::json>, std::optional<Error>)> evaluate =
        [&](std::optional<nlohmann::json> result, std::optional<Error> error) {
            if (state.finished) return;
            logInfo("sprelio transcribe - result: " + std::string(kPrivatized));
            const auto text = stringValue(result, "text");
            const auto language = stringValue(result, "language");
            if (text && language) {
                settings.setLastDetectedLanguageCode(*language);
                logInfo("sprelio transcribe - generatedText: " + std::string(kPrivatized) +
                        " - detectedLanguage: " + *language);
                postHistory(HistoryManagerLogLevel::success, *text);
                state.transcript = *text;
                if (!prompt) {
                    state.printed = *text;
                    finish(0);
                    return;
                }
                // The AI result follows in the same answer, right behind the transcript, unless the failure rules
                // are about to send the recording to another backend. Anything else means no result is coming.
                loop.post([&] {
                    if (state.finished || upload.retries() > 0 || upload.hasUploadTask()) return;
                    state.printed = state.transcript;
                    state.warning = "the server sent the transcript but no AI result";
                    finish(1);
                });
                return;
            }
            if (const auto completion = stringValue(result, "completion")) {
                logInfo("sprelio transcribe - completion: " + std::string(kPrivatized));
                state.printed = *completion;
                finish(0);
                return;
            }
            const auto message = stringValue(result, "message");
            if (!error && message) {
                logError("sprelio transcribe - backend message error: " + *message);
                postHistory(HistoryManagerLogLevel::error, *message);
                messages.showAlertForError(SPRStringError::errorMessageError(std::nullopt, *message).toError());
                state.printed = state.transcript;
                state.failureText = *message;
                finish(1);
                return;
            }
            if (error) {
                logError("sprelio transcribe - error: " + error->debugDescription());
                postHistory(HistoryManagerLogLevel::error, error->localizedDescription);
                messages.showAlertForError(*error);
                state.printed = state.transcript;
                state.failureText = error->localizedDescription;
                finish(1);
                return;
            }
            logInfo("sprelio transcribe - result: " + (result ? std::string(kPrivatized) : std::string("nil")));
            const Error empty = makeError(appState.internetAvailable() ? SPRLocalizedError::unknownError
                                                                       : SPRLocalizedError::networkError,
                                          messages.appName());
            postHistory(HistoryManagerLogLevel::error, empty.localizedDescription);
            messages.showAlertForError(empty);
            state.printed = state.transcript;
            state.failureText = empty.localizedDescription;
            finish(1);
        };

    loop.post([&] {
        // Each start of the command is a start of the application: the backend list is fetched afresh, which also
        // replaces a list that named an embedded server of an earlier run.
        context.balancing().initializeIfNeeded("sprelio transcribe", false, [&] {
            std::string missing;
            if (!context.checkBackends(path, requestID, missing)) {
                state.failureText = missing;
                finish(1);
                return;
            }
            logInfo("AudioUploadManager.uploadRecording() - requestID: " + id +
                    ", inputLanguageCode: " + options.language.value_or("nil"));
            upload.uploadRecording(path, requestID, languages, prompt, options.diarization, options.language,
                                   [&](std::optional<nlohmann::json> result, std::optional<Error> error) {
                                       evaluate(std::move(result), std::move(error));
                                   });
        });
    });
    const bool ended = context.runUntil([&] { return state.finished; }, kTranscribeLimit);
    context.drain();
    if (!ended) return fail(err, "transcribe: no answer from the backend (see the log)");
    if (state.printed) out << *state.printed << "\n";
    if (state.warning) err << "sprelio: transcribe: " << *state.warning << "\n";
    if (state.failureText) reportFailure(context, err, *state.failureText);
    return state.status;
}

bool isFileValidForTranscription(const fs::path& path, std::string& problem) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        logInfo("isFileValidForTranscription - file does not exist: " + path.string());
        problem = "no such file: " + path.string();
        return false;
    }
    std::string extension = path.extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto known = [&](const auto& list) { return std::find(list.begin(), list.end(), extension) != list.end(); };
    if (!known(kAudioExtensions) && !known(kVideoExtensions)) {
        logInfo("isFileValidForTranscription - unsupported extension: " + extension);
        problem = "Only audio and video files are supported.";
        return false;
    }
    return true;
}

int transcribeLongFile(const TranscribeOptions& options, std::ostream& out, std::ostream& err) {
    const fs::path path = fs::absolute(options.file);
    std::string problem;
    if (!isFileValidForTranscription(path, problem)) return fail(err, "transcribe --long: " + problem, 2);

    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "transcribe --long: " + startError);
    auto& history = context.history();
    auto& loop = context.loop();
    const auto keptFile = keepForHistory(env, path, problem);
    if (!keptFile) return fail(err, "transcribe --long: " + problem);
    const fs::path& kept = *keptFile;

    const auto fileHash = sha256Hash(kept);
    if (!fileHash) return fail(err, "transcribe --long: could not read " + path.string());
    const std::string fileUUID = Uuid::random().string();
    const Uuid requestID = Uuid::random();
    logInfo("processFileFromPath{} - Starting upload for file: " + path.filename().string());

    struct State {
        bool finished = false;
        int status = 1;
        std::optional<std::string> text;
        std::optional<std::string> failureText;
        int lastPercent = -1;
    } state;
    auto failWith = [&](const Error& error, std::optional<int> statusCode) {
        logError("processFileFromPath{} - error: " + error.debugDescription() +
                 ", statusCode: " + (statusCode ? std::to_string(*statusCode) : std::string("nil")));
        if (env.settings().soundEnabled()) context.sounds().play("Basso");
        loop.post([&history, text = error.localizedDescription, kept, requestID] {
            history.log(HistoryManagerLogLevel::error, text, kept, requestID, false);
        });
        state.failureText = error.localizedDescription;
        state.finished = true;
        state.status = 1;
    };

    auto& files = context.fileUploadManager();
    files.onUploadProgressChanged = [&](double progress) {
        // One line per tenth, so that a pipe gets a readable log rather than a counter.
        const int percent = static_cast<int>(progress * 100);
        if (percent / 10 == state.lastPercent / 10 && percent != 100) return;
        if (percent == state.lastPercent) return;
        state.lastPercent = percent;
        err << "Uploading file... (" << percent << "%)\n" << std::flush;
    };

    loop.post([&] {
        context.balancing().initializeIfNeeded("sprelio transcribe --long", false, [&] {
            std::string missing;
            if (!context.checkBackends(kept, requestID, missing)) {
                state.failureText = missing;
                state.finished = true;
                return;
            }
            files.uploadFile(kept, *fileHash, fileUUID, options.diarization,
                             [&](std::optional<std::string> fileId, std::optional<int> statusCode,
                                 std::optional<Error> error) {
                logInfo("processFileFromPath() - statusCode: " +
                        (statusCode ? std::to_string(*statusCode) : std::string("nil")));
                if (error || !fileId) {
                    failWith(error.value_or(makeError(SPRLocalizedError::uploadFailedError, env.constants().appName())),
                             statusCode);
                    return;
                }
                logInfo("processFileFromPath{} - uuid: " + *fileId);
                logInfo("processFileFromPath{} - File uploaded successfully with UUID: " + *fileId);
                err << "Transcribing file...\n" << std::flush;
                files.transcribeFile(
                    *fileId, *fileHash, options.diarization,
                    [&](const std::string& progressText, std::optional<double> duration) {
                        err << "  " << progressText;
                        if (duration) err << " [" << static_cast<long long>(*duration) << " s]";
                        err << "\n" << std::flush;
                    },
                    [&](const std::string& text, std::optional<double>) {
                        logInfo("onCompletion() - Transcription complete - text: " + std::string(kPrivatized) +
                                " - error: nil");
                        logInfo("Transcription completed: " + std::to_string(text.size()));
                        loop.post([&history, text, kept, requestID] {
                            history.log(HistoryManagerLogLevel::success, text, kept, requestID, false);
                        });
                        state.text = text;
                        state.finished = true;
                        state.status = 0;
                    },
                    [&](const Error& transcriptionError) { failWith(transcriptionError, std::nullopt); });
            });
        });
    });
    const bool ended = context.runUntil([&] { return state.finished; }, kLongFileLimit);
    context.drain();
    if (!ended) return fail(err, "transcribe --long: no answer from the backend (see the log)");
    if (state.text) out << *state.text << "\n";
    if (state.failureText) reportFailure(context, err, *state.failureText);
    return state.status;
}

int transcribe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    TranscribeOptions options;
    std::optional<std::string> file;
    for (std::size_t i = 2; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--diarization") {
            options.diarization = true;
        } else if (arg == "--long") {
            options.longFile = true;
        } else if (arg == "--language" || arg == "--item") {
            if (i + 1 >= args.size()) return fail(err, "transcribe: " + arg + " needs a value", 2);
            (arg == "--language" ? options.language : options.item) = args[++i];
        } else if (arg.starts_with("--")) {
            return fail(err, "transcribe: unknown option " + arg + " (see sprelio --help)", 2);
        } else if (file) {
            return fail(err, "transcribe: one FILE at a time", 2);
        } else {
            file = arg;
        }
    }
    if (!file) return fail(err, "transcribe: FILE is required", 2);
    options.file = *file;
    if (options.language && options.language->empty()) return fail(err, "transcribe: --language wants a code", 2);
    if (options.longFile) {
        if (options.language || options.item)
            return fail(err,
                        "transcribe --long: --language and --item belong to the dictation path; long files use your "
                        "languages",
                        2);
        return transcribeLongFile(options, out, err);
    }
    std::error_code error;
    if (!fs::is_regular_file(options.file, error)) return fail(err, "transcribe: no such file: " + *file, 2);
    return transcribeRecording(options, out, err);
}

// ---- account ----

int account(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) return fail(err, "account: takes no arguments", 2);
    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "account: " + startError);
    auto& service = context.account();

    bool done = false;
    bool userSectionArrived = false;
    std::optional<Error> failure;
    service.onUserDetails = [&](const UserDetailsResponse&) { userSectionArrived = true; };
    context.loop().post([&] {
        service.refreshUserInfo("sprelio account", true, [&](std::optional<Error> error) {
            failure = std::move(error);
            done = true;
        });
    });
    const bool ended = context.runUntil([&] { return done; }, kAccountLimit);
    context.drain();
    if (!ended) return fail(err, "account: no answer from the account API (see the log)");
    if (failure) {
        return fail(err, "account: the account API at " + context.endpoint().baseURL() +
                             " could not be reached: " + failure->localizedDescription);
    }

    auto& settings = env.settings();
    out << "Account API: " << context.endpoint().baseURL()
        << (context.endpoint().isEmbedded() ? " (embedded server)" : "") << "\n";
    const auto details = settings.userDetailsResponse() ? UserDetailsResponse::decode(*settings.userDetailsResponse())
                                                        : std::nullopt;
    if (userSectionArrived && details && settings.token()) {
        out << "Signed in as: " << details->email << "\n";
        out << "Requests: " << details->requests << "\n";
    } else if (settings.token()) {
        out << "Signed in as: (not signed in: the account API did not accept the stored sign-in; run sprelio login "
               "EMAIL)\n";
    } else {
        out << "Signed in as: (not signed in; run sprelio login EMAIL)\n";
    }
    if (service.flags()) out << "Flags: " << service.flags()->dump() << "\n";

    const auto& balancers = context.balancing().balancers();
    out << "Backends:" << (balancers.empty() ? " (none)" : "") << "\n";
    for (std::size_t i = 0; i < balancers.size(); ++i) {
        const auto& b = *balancers[i];
        out << "  " << (i + 1) << ". " << b.name << "  " << b.url << "  " << (b.isOnline ? "online" : "offline")
            << "\n";
    }
    const auto& servers = service.aiServers();
    out << "AI servers:" << (servers.empty() ? " (none)" : "") << "\n";
    for (const auto& server : servers) {
        out << "  " << server.name << "  " << server.url << "  models: " << joined(server.models, ", ") << "\n";
    }
    const auto& models = service.aiModels();
    out << "AI models:" << (models.empty() ? " (none)" : "") << "\n";
    for (const auto& model : models) {
        out << "  " << model.name << " (" << model.model << ")  languages: " << joined(model.languages, ", ");
        if (model.providerName) out << "  provider: " << *model.providerName;
        out << "\n";
    }
    return 0;
}

// ---- login, logout ----

// The sign-in waiting for its link or code, kept between commands: `sprelio login EMAIL` and
// `sprelio login --code CODE` are separate processes.
struct PendingSignIn {
    std::string uuid;
    std::string email;
    std::string apiBaseURL;
};

fs::path pendingSignInFile(AppEnvironment& env) { return env.constants().appSupportFolder() / kSignInRequestFile; }

void storePendingSignIn(AppEnvironment& env, const PendingSignIn& pending) {
    const nlohmann::ordered_json json{{"uuid", pending.uuid}, {"email", pending.email}, {"apiBaseURL", pending.apiBaseURL}};
    const auto error = store::writeFileAtomically(pendingSignInFile(env), json.dump(), 0600);
    if (!error.empty()) logError("sprelio login - could not keep the sign-in request: " + error);
}

std::optional<PendingSignIn> loadPendingSignIn(AppEnvironment& env) {
    std::ifstream in(pendingSignInFile(env));
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    try {
        const auto json = nlohmann::json::parse(text.str());
        PendingSignIn pending{json.at("uuid").get<std::string>(), json.at("email").get<std::string>(),
                              json.at("apiBaseURL").get<std::string>()};
        return pending;
    } catch (const std::exception& e) {
        logError("sprelio login - unreadable sign-in request file: " + std::string(e.what()));
        return std::nullopt;
    }
}

void forgetPendingSignIn(AppEnvironment& env) {
    std::error_code ignored;
    fs::remove(pendingSignInFile(env), ignored);
}

bool isEmailAddress(const std::string& text) {
    static const std::regex pattern("[A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,}");
    return std::regex_match(text, pattern);
}

std::string embeddedLoginText() {
    return "the embedded account API (apiBaseURL \"embedded\") has one local account, which is always signed in; to "
           "sign in to an account server, set its URL first: sprelio settings set apiBaseURL URL";
}

// The success steps of a sign-in: token and address stored, the state signed in, then a fresh user info, which
// brings the account's details. `done` runs on the loop once that refresh has ended.
void completeSignIn(BackendContext& context, const LoginConfirmResponse& record, std::function<void()> done) {
    auto& settings = context.env().settings();
    settings.setToken(record.token);
    settings.setUserEmail(record.email);
    forgetPendingSignIn(context.env());
    const bool changed = settings.lastKnownLoginState() != "loggedIn";
    settings.setLastKnownLoginState("loggedIn");
    if (!changed) {
        done();
        return;
    }
    context.account().refreshUserInfo("LoginAndRegistrationPresenter.loginState{}", true,
                                      [done = std::move(done)](std::optional<Error>) { done(); });
}

// The server's words in an answer that carries no record.
std::string answerText(const std::optional<platform::HttpResponse>& response) {
    if (!response) return "no answer";
    try {
        const auto json = nlohmann::json::parse(response->body);
        if (json.is_object() && json.contains("message") && json["message"].is_string())
            return json["message"].get<std::string>();
    } catch (const std::exception&) {
    }
    return "HTTP status " + std::to_string(response->status);
}

int loginWithCode(const std::string& code, std::ostream& out, std::ostream& err) {
    AppEnvironment env;
    const auto pending = loadPendingSignIn(env);
    if (!pending) return fail(err, "login --code: no sign-in waits for a code; run sprelio login EMAIL first");
    if (pending->apiBaseURL != ApiEndpoint::configuredBaseURL(env.settings()))
        return fail(err, "login --code: the sign-in was asked of " + pending->apiBaseURL +
                             ", but the account API is now " + ApiEndpoint::configuredBaseURL(env.settings()) +
                             "; run sprelio login EMAIL again");
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "login --code: " + startError);

    bool done = false;
    int status = 1;
    std::optional<std::string> failureText;
    context.loop().post([&] {
        context.account().loginViaCode(
            pending->uuid, code,
            [&](std::optional<LoginConfirmResponse> record, std::optional<platform::HttpResponse> response,
                std::optional<Error> error) {
                if (record) {
                    completeSignIn(context, *record, [&, email = record->email] {
                        out << "Signed in as " << email << ".\n";
                        status = 0;
                        done = true;
                    });
                    return;
                }
                if (error) {
                    logError("onClickOtpSubmit() - error: " + error->debugDescription());
                    context.messages().showAlertForError(*error);
                    failureText = error->localizedDescription;
                } else {
                    logWarning("onClickOtpSubmit() - response: " + answerText(response));
                    failureText = "the account API did not confirm the code: " + answerText(response);
                }
                done = true;
            });
    });
    const bool ended = context.runUntil([&] { return done; }, kAccountLimit);
    context.drain();
    if (!ended) return fail(err, "login --code: no answer from the account API (see the log)");
    if (failureText) reportFailure(context, err, *failureText);
    return status;
}

int loginWithEmail(const std::string& email, std::ostream& out, std::ostream& err) {
    if (!isEmailAddress(email)) return fail(err, "login: \"" + email + "\" is no e-mail address", 2);
    AppEnvironment env;
    if (ApiEndpoint::configuredBaseURL(env.settings()) == kEmbeddedApi) return fail(err, "login: " + embeddedLoginText());
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "login: " + startError);
    auto& service = context.account();
    auto& settings = env.settings();
    const auto tokenBefore = settings.token();

    bool done = false;
    int status = 1;
    std::optional<std::string> failureText;
    std::function<void()> requestSignIn;
    std::function<void(const std::string&)> waitForLink;
    std::function<void()> awaitSignInElsewhere;
    std::string usedElsewhereAnswer;
    std::chrono::steady_clock::time_point giveUpWaitingAt;

    waitForLink = [&](const std::string& uuid) {
        service.checkLoginViaLink(uuid, [&, uuid](std::optional<LoginConfirmResponse> record,
                                                  std::optional<platform::HttpResponse> response,
                                                  std::optional<Error> error) {
            if (record) {
                completeSignIn(context, *record, [&, signedIn = record->email] {
                    out << "Signed in as " << signedIn << ".\n";
                    status = 0;
                    done = true;
                });
                return;
            }
            if (error && error->debugDescription().find("1001") != std::string::npos) {
                // The link was not used in time: a new sign-in, with a new mail.
                out << "The link was not used in time; asking for a new one.\n" << std::flush;
                requestSignIn();
                return;
            }
            if (error) {
                logError("startLoginVerifyPooling() - error: " + error->debugDescription());
                context.messages().showAlertForError(*error);
                failureText = error->localizedDescription;
                done = true;
                return;
            }
            logWarning("startLoginVerifyPooling() - response: " + answerText(response));
            // The poll ends without a record when the request was used up meanwhile: by the code, typed into
            // another `sprelio login --code`, which writes the settings file once its own answer has arrived.
            usedElsewhereAnswer = answerText(response);
            giveUpWaitingAt = std::chrono::steady_clock::now() + kCodeSignInWait;
            awaitSignInElsewhere();
        });
    };

    awaitSignInElsewhere = [&] {
        // This process's copy of the settings is older than the file: the file is read afresh.
        store::JsonFileSettingsStore current(env.constants().settingsFile());
        const auto token = current.object("token");
        const auto userEmail = current.object("userEmail");
        if (token && token->is_string() && (!tokenBefore || token->get<std::string>() != *tokenBefore) &&
            userEmail && userEmail->is_string()) {
            out << "Signed in as " << userEmail->get<std::string>() << " (with the code).\n";
            status = 0;
            done = true;
            return;
        }
        if (std::chrono::steady_clock::now() >= giveUpWaitingAt) {
            failureText = "the sign-in ended without signing in: " + usedElsewhereAnswer;
            done = true;
            return;
        }
        context.loop().postAfter(kSettingsRecheck, [&] { awaitSignInElsewhere(); });
    };

    requestSignIn = [&] {
        service.login(email, [&](std::optional<LoginEmailResponse> record, std::optional<platform::HttpResponse> response,
                                 std::optional<Error> error) {
            const long code = response ? response->status : 0;
            if (error) {
                logError("onClickLoginSubmit() - error: " + error->localizedDescription);
                failureText = error->localizedDescription;
                done = true;
                return;
            }
            if (record && code >= 200 && code <= 299) {
                storePendingSignIn(env, PendingSignIn{record->uuid, email, context.endpoint().baseURL()});
                settings.setLastKnownLoginState("loginProgress");
                out << record->message << "\n"
                    << "Open the link in the e-mail, or run: sprelio login --code CODE\n"
                    << "Waiting for the link to be opened...\n"
                    << std::flush;
                waitForLink(record->uuid);
                return;
            }
            if (record) {
                const std::time_t now = std::time(nullptr);
                std::tm local{};
                char date[64] = "";
                if (localtime_r(&now, &local)) std::strftime(date, sizeof date, "%x %X", &local);
                const std::string text = record->message + " - (" + date + ")";
                logWarning("onClickLoginSubmit() - request not succesful, message: " + text);
                failureText = text;
                done = true;
                return;
            }
            logWarning("onClickLoginSubmit() - response: " + answerText(response));
            failureText = "the account API did not accept the sign-in: " + answerText(response);
            done = true;
        });
    };

    context.loop().post([&] { requestSignIn(); });
    const bool ended = context.runUntil([&] { return done; }, kLoginLimit);
    context.drain();
    if (!ended) return fail(err, "login: gave up waiting for the link");
    if (failureText) reportFailure(context, err, *failureText);
    return status;
}

int login(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() == 4 && args[2] == "--code") return loginWithCode(args[3], out, err);
    if (args.size() == 3 && !args[2].starts_with("--")) return loginWithEmail(args[2], out, err);
    return fail(err, "login: expected EMAIL or --code CODE", 2);
}

int logout(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) return fail(err, "logout: takes no arguments", 2);
    AppEnvironment env;
    auto& settings = env.settings();
    // Works offline: nothing here needs the account API.
    settings.setLastKnownLoginState("logout");
    settings.setUserDetailsResponse(std::nullopt);
    settings.setToken(std::nullopt);
    settings.setUserEmail(std::nullopt);
    forgetPendingSignIn(env);
    if (!env.settingsStore().lastWriteSucceeded())
        return fail(err, "logout: could not write " + env.settingsStore().path().string());
    logInfo("sprelio logout - signed out");
    out << "Signed out.\n";
    if (ApiEndpoint::configuredBaseURL(settings) == kEmbeddedApi)
        out << "(The embedded account API signs its local account in again at the next command that uses it.)\n";
    return 0;
}

} // namespace

int backendCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const std::string& command = args.at(1);
    if (command == "transcribe") return transcribe(args, out, err);
    if (command == "account") return account(args, out, err);
    if (command == "login") return login(args, out, err);
    return logout(args, out, err);
}

} // namespace sprelio::app
