#include "app/BackendCommands.h"

#include <array>
#include <chrono>
#include <fstream>
#include <ostream>
#include <sstream>

#include "ai/IntelligenceItems.h"
#include "app/BackendContext.h"
#include "app/CommandSupport.h"
#include "audio/RecordingPathHelper.h"
#include "backend/UploadAnswer.h"
#include "files/FilesMenuViewModel.h"
#include "files/HistoryCopy.h"
#include "base/Log.h"
#include "base/TextCase.h"
#include "shared/ShortcutAction.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"

// sprelio transcribe: a recording or a long file, through the backend chain and into the history.
namespace sprelio::app {

namespace {

namespace fs = std::filesystem;

// A dictation's upload may walk a chain of backends, each allowed two minutes; a long file may take as long as it
// is. Past these limits something is wrong beyond what the failure rules cover.
constexpr auto kTranscribeLimit = std::chrono::minutes(15);
constexpr auto kLongFileLimit = std::chrono::hours(6);

std::vector<std::string> configuredLanguageCodes(const store::Settings& settings) {
    std::vector<std::string> codes;
    for (const auto& language : settings.localizedTranslationLanguages()) {
        if (!language.code.empty()) codes.push_back(language.code);
    }
    return codes;
}

// A file named on the command line is the user's own: the history keeps a name of its own for it.
std::optional<fs::path> keepForHistory(AppEnvironment& env, const fs::path& file, std::string& problem) {
    return keepCopyForHistory(env.settings().saveRecordingsFolder(), env.clock().now(), file, problem);
}

struct TranscribeOptions {
    fs::path file;
    std::optional<std::string> language;
    std::optional<std::string> item;
    bool diarization = false;
    bool longFile = false;
};

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
        const std::string itemId = intelligenceItemIdFromArgument(*options.item);
        prompt = promptIdForItemWithId(itemId, presetIds(env), settings.lastDetectedLanguageCode(),
                                       env.constants().appLanguageCode());
        if (!prompt) {
            return fail(err,
                        "transcribe: --item " + *options.item +
                            " is no item the server runs with the upload (a built-in prompt such as fixGrammar, a "
                            "tone such as formal, or a language code to translate into such as de)",
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
            const UploadAnswer answer = readUploadAnswer(result, error);
            switch (answer.kind) {
            case UploadAnswer::Kind::transcript:
                settings.setLastDetectedLanguageCode(*answer.language);
                logInfo("sprelio transcribe - generatedText: " + std::string(kPrivatized) +
                        " - detectedLanguage: " + *answer.language);
                postHistory(HistoryManagerLogLevel::success, answer.text);
                state.transcript = answer.text;
                if (!prompt) {
                    state.printed = answer.text;
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
            case UploadAnswer::Kind::completion:
                logInfo("sprelio transcribe - completion: " + std::string(kPrivatized));
                state.printed = answer.text;
                finish(0);
                return;
            case UploadAnswer::Kind::serverMessage:
                logError("sprelio transcribe - backend message error: " + answer.text);
                postHistory(HistoryManagerLogLevel::error, answer.text);
                messages.showAlertForError(SPRStringError::errorMessageError(std::nullopt, answer.text).toError());
                state.printed = state.transcript;
                state.failureText = answer.text;
                finish(1);
                return;
            case UploadAnswer::Kind::failure:
                logError("sprelio transcribe - error: " + answer.error->debugDescription());
                postHistory(HistoryManagerLogLevel::error, answer.error->localizedDescription);
                messages.showAlertForError(*answer.error);
                state.printed = state.transcript;
                state.failureText = answer.error->localizedDescription;
                finish(1);
                return;
            case UploadAnswer::Kind::empty: break;
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
    if (state.failureText) context.reportFailure(err, *state.failureText);
    return state.status;
}

bool isFileValidForTranscription(const fs::path& path, std::string& problem) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        logInfo("isFileValidForTranscription - file does not exist: " + path.string());
        problem = "no such file: " + path.string();
        return false;
    }
    if (!isSupportedMediaExtension(path)) {
        std::string extension = path.extension().string();
        if (!extension.empty()) extension.erase(0, 1);
        logInfo("isFileValidForTranscription - unsupported extension: " + text::lowercased(extension));
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
    if (state.failureText) context.reportFailure(err, *state.failureText);
    return state.status;
}

} // namespace

int transcribeCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
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

} // namespace sprelio::app
