#include "app/SubstitutionCommands.h"

#include <chrono>
#include <ostream>

#include "app/CommandSupport.h"
#include "app/AppEnvironment.h"
#include "store/DatabaseHelpers.h"
#include "base/Log.h"
#include "text/SubstitutionHelpers.h"

namespace sprelio::app {

namespace {

int substitute(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 3) return fail(err, "substitute: expected one TEXT argument (quote it)", 2);
    AppEnvironment env;
    auto& context = env.persistence().container().viewContext();
    out << applySubstitutions(context, args[2]) << "\n";
    return 0;
}

int substitutions(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() < 3) return fail(err, "substitutions: expected list, add INPUT OUTPUT or remove INPUT", 2);
    const std::string& verb = args[2];
    if (verb != "list" && verb != "add" && verb != "remove")
        return fail(err, "substitutions: unknown action \"" + verb + "\" (use list, add or remove)", 2);
    const std::size_t expected = verb == "list" ? 3 : verb == "add" ? 5 : 4;
    if (args.size() != expected)
        return fail(err, "substitutions " + verb + ": wrong number of arguments (see sprelio --help)", 2);

    AppEnvironment env;
    auto& context = env.persistence().container().viewContext();

    if (verb == "list") {
        // In the order the rules apply; the editor's blank row is no rule.
        for (const auto& rule : cdGetSubstitutions(context)) {
            if (rule->isBlankNew()) continue;
            out << rule->input().value_or("") << "\t" << rule->output().value_or("") << "\n";
        }
        return 0;
    }

    if (verb == "add") {
        if (args[3].empty() && args[4].empty())
            return fail(err, "substitutions add: INPUT and OUTPUT are both empty; such a rule does nothing");
        auto rule = context.insertNew<store::Substitution>();
        rule->setInput(args[3]);
        rule->setOutput(args[4]);
        rule->setIsBlankNew(false);
        rule->setTimestamp(std::chrono::duration<double>(env.clock().now().time_since_epoch()).count());
        if (!cdSaveContext(&context, "substitutionsAdd()")) return fail(err, "substitutions add: could not save the rule");
        logInfo("sprelio substitutions add - added a rule");
        return 0;
    }

    std::size_t removed = 0;
    for (const auto& rule : cdGetSubstitutions(context)) {
        if (rule->isBlankNew() || rule->input().value_or("") != args[3]) continue;
        context.deleteObject(rule);
        ++removed;
    }
    if (removed == 0) return fail(err, "substitutions remove: no rule with the input \"" + args[3] + "\"");
    if (!cdSaveContext(&context, "substitutionsRemove()")) return fail(err, "substitutions remove: could not save");
    logInfo("sprelio substitutions remove - removed " + std::to_string(removed) + " rule(s)");
    return 0;
}

} // namespace

int substitutionCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() >= 2 && args[1] == "substitute") return substitute(args, out, err);
    return substitutions(args, out, err);
}

} // namespace sprelio::app
