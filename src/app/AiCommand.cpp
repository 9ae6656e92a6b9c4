#include "app/BackendCommands.h"

#include <chrono>
#include <ostream>

#include "ai/IntelligenceItems.h"
#include "ai/IntelligenceManager.h"
#include "ai/IntelligenceViewModelImpl.h"
#include "app/BackendContext.h"
#include "app/CommandSupport.h"
#include "base/Log.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"

// sprelio ai: one AI action on a text, through the same completion service as the desktop application.
namespace sprelio::app {

namespace {

// The completion service gives each server a minute; the walk over a long list, and the account refresh before
// it, are bounded by this.
constexpr auto kAiLimit = std::chrono::minutes(10);

struct AiOptions {
    std::optional<std::string> item;
    std::optional<std::string> presetName;
    std::optional<std::string> language;
    std::string text;
};

std::shared_ptr<store::IntelligencePreset> presetNamed(AppEnvironment& env, const std::string& name) {
    auto presets = store::cdGetEntity<store::IntelligencePreset>(env.persistence().container().viewContext());
    if (!presets) return nullptr;
    for (const auto& preset : *presets) {
        if (preset->title() == name || (preset->uuid() && preset->uuid()->string() == name)) return preset;
    }
    return nullptr;
}

std::optional<PostProcess> postProcessNamed(const std::string& name) {
    for (const auto process : kPostProcesses) {
        if (caseName(process) == name) return process;
    }
    return std::nullopt;
}

const char* kItemHelp = "an AI item: a built-in prompt (askAI, addEmoji, improveWriting, fixGrammar), a tone "
                        "(professional, formal, fun, flirt, positive, negative, neutral), a language code to "
                        "translate into, a local step (uppercaseAll, trimEndingPunctuation, ...), or an item id";

} // namespace

int aiCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    AiOptions options;
    std::vector<std::string> positional;
    for (std::size_t i = 2; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--preset" || arg == "--language") {
            if (i + 1 >= args.size()) return fail(err, "ai: " + arg + " needs a value", 2);
            (arg == "--preset" ? options.presetName : options.language) = args[++i];
        } else if (arg.starts_with("--")) {
            return fail(err, "ai: unknown option " + arg + " (see sprelio --help)", 2);
        } else {
            positional.push_back(arg);
        }
    }
    if (options.presetName ? positional.size() != 1 : positional.size() != 2)
        return fail(err, "ai: expected ITEM TEXT, or --preset NAME TEXT", 2);
    options.text = positional.back();
    if (!options.presetName) options.item = positional.front();

    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "ai: " + startError);
    auto& settings = env.settings();

    std::shared_ptr<store::IntelligencePreset> preset;
    std::optional<AICompletionPromptId> prompt;
    if (options.presetName) {
        preset = presetNamed(env, *options.presetName);
        if (!preset) return fail(err, "ai: no preset named " + *options.presetName, 2);
    } else {
        const std::string itemId = intelligenceItemIdFromArgument(*options.item);
        const auto item = classifyIntelligenceItem(itemId);
        if (item.kind == IntelligenceItem::Kind::postProcess) {
            // A local step needs no service.
            out << applyPostProcess(*postProcessNamed(item.name), options.text) << "\n";
            return 0;
        }
        if (item.kind == IntelligenceItem::Kind::hardCoded && item.name == caseName(HardCodedItem::useAsIs)) {
            out << options.text << "\n";
            return 0;
        }
        prompt = promptIdForItemWithId(itemId, {}, settings.lastDetectedLanguageCode(),
                                       env.constants().appLanguageCode());
        if (!prompt) {
            if (auto byId = presetNamed(env, itemId)) {
                preset = byId;
            } else {
                return fail(err, "ai: " + *options.item + " is no item; ITEM is " + kItemHelp, 2);
            }
        }
    }
    if (prompt) {
        prompt->text = options.text;
        if (options.language) prompt->textLang = *options.language;
    }

    bool finished = false;
    std::optional<std::string> result;
    std::optional<std::string> failure;
    auto done = [&](std::optional<std::string> text, std::optional<AICompletionError> error) {
        result = std::move(text);
        if (error) failure = error->errorDescription();
        finished = true;
    };
    auto& intelligence = context.intelligence();
    context.loop().post([&] {
        // The AI servers come with the account: fetched afresh, as every start of the application does.
        context.balancing().initializeIfNeeded("sprelio ai", false, [&] {
            if (prompt) {
                intelligence.textCompletionWithPromptId(*prompt, done);
            } else {
                intelligence.textCompletionWithPreset(*preset, options.text, done);
            }
        });
    });
    const bool ended = context.runUntil([&] { return finished; }, kAiLimit);
    context.drain();
    if (!ended) return fail(err, "ai: no answer from the AI service (see the log)");
    if (!result) return fail(err, "ai: " + failure.value_or("no result"));
    out << *result << "\n";
    return 0;
}

} // namespace sprelio::app
