#include "text/SubstitutionsViewModel.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "store/DatabaseHelpers.h"
#include "base/Log.h"
#include "text/SubstitutionHelpers.h"
#include "base/TextCase.h"

namespace sprelio {

namespace {

double secondsSince1970(std::chrono::system_clock::time_point t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

// The seed rules. The first removes an ellipsis that follows a word; the second shows how a rule reads.
struct SeedRule {
    const char* input;
    const char* output;
};
constexpr SeedRule kDefaultSubstitutions[] = {
    {"...", ""},
    {"Some text wrong detected", "Needed text"},
};

} // namespace

std::string_view sortOrderName(SortOrder order) {
    switch (order) {
    case SortOrder::ascend: return "ascend";
    case SortOrder::descend: return "descend";
    case SortOrder::none: break;
    }
    return "none";
}

std::optional<SortOrder> sortOrderFromName(std::string_view name) {
    for (SortOrder o : {SortOrder::none, SortOrder::ascend, SortOrder::descend})
        if (sortOrderName(o) == name) return o;
    return std::nullopt;
}

bool isEmpty(const store::Substitution& substitution) {
    return substitution.input().value_or("").empty() && substitution.output().value_or("").empty();
}

void printContents(const store::Substitution& substitution) {
    auto privatized = [](const std::optional<std::string>& value) {
        return value ? std::string(kPrivatized) : std::string("nil");
    };
    const auto timestamp = substitution.timestamp();
    logDebug("Substitution.printContents() - input: " + privatized(substitution.input()) +
             ", output: " + privatized(substitution.output()) +
             ", isBlankNew: " + (substitution.isBlankNew() ? "true" : "false") +
             ", timestamp: " + (timestamp ? std::to_string(*timestamp) : std::string("nil")) +
             ", isEmpty: " + (isEmpty(substitution) ? "true" : "false"));
}

SubstitutionsViewModel::SubstitutionsViewModel(store::ManagedObjectContext& context, store::Settings& settings,
                                               const platform::Clock& clock)
    : context_(context), settings_(settings), clock_(clock) {}

std::vector<SubstitutionsViewModel::Row> SubstitutionsViewModel::fetched() const { return cdGetSubstitutions(context_); }

void SubstitutionsViewModel::onAppear(platform::Workspace* workspace) {
    auto rows = fetched();
    const auto rules = std::count_if(rows.begin(), rows.end(), [](const Row& r) { return !r->isBlankNew(); });
    if (rules == 0) addDefaultSubstitutions();
    if (workspace) workspace->activateSelf();
    rows = fetched();
    if (std::none_of(rows.begin(), rows.end(), [](const Row& r) { return r->isBlankNew(); })) addBlankNew();
    sortedSubstitutions = sort();
}

std::vector<SubstitutionsViewModel::Row> SubstitutionsViewModel::sort() {
    auto rows = fetched();
    logInfo("sort() - sorting " + std::to_string(rows.size()) + " substitution(s)");
    for (const auto& row : rows) printContents(*row);

    const std::string storedOrder = settings_.subSortOrder();
    const auto order = sortOrderFromName(storedOrder);
    if (!order) logWarning("sort() - unknown sort order \"" + storedOrder + "\", keeping the stored order");
    const bool byInput = settings_.subSortInput();

    if (order && *order != SortOrder::none) {
        // The order of the canonical forms' code points, so that "é" typed either way sorts the same.
        std::vector<std::pair<std::string, Row>> keyed;
        keyed.reserve(rows.size());
        for (auto& row : rows)
            keyed.emplace_back(text::canonicalForm((byInput ? row->input() : row->output()).value_or("")), row);
        const bool ascending = *order == SortOrder::ascend;
        std::stable_sort(keyed.begin(), keyed.end(), [ascending](const auto& a, const auto& b) {
            return ascending ? a.first < b.first : a.first > b.first;
        });
        for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = std::move(keyed[i].second);
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row& a, const Row& b) { return !a->isBlankNew() && b->isBlankNew(); });
    return rows;
}

void SubstitutionsViewModel::headerClicked(bool inputColumn) {
    if (settings_.subSortInput() != inputColumn) {
        settings_.setSubSortInput(inputColumn);
        settings_.setSubSortOrder(std::string(sortOrderName(SortOrder::none)));
    }
    const SortOrder order = sortOrderFromName(settings_.subSortOrder()).value_or(SortOrder::none);
    // While editing, a click on the active column only re-sorts, so that rows moved by edits fall back in place.
    if (!(sortDisabled && order != SortOrder::none)) {
        const SortOrder next = order == SortOrder::none     ? SortOrder::ascend
                               : order == SortOrder::ascend ? SortOrder::descend
                                                            : SortOrder::none;
        settings_.setSubSortOrder(std::string(sortOrderName(next)));
    }
    sortDisabled = false;
    sortedSubstitutions = sort();
}

std::optional<std::string> SubstitutionsViewModel::headerArrow(bool inputColumn) const {
    if (settings_.subSortInput() != inputColumn) return std::nullopt;
    const auto order = sortOrderFromName(settings_.subSortOrder());
    if (!order || *order == SortOrder::none) return std::nullopt;
    return *order == SortOrder::ascend ? "arrow.up" : "arrow.down";
}

void SubstitutionsViewModel::addDefaultSubstitutions() {
    const double now = secondsSince1970(clock_.now());
    for (const auto& seed : kDefaultSubstitutions) {
        auto row = context_.insertNew<store::Substitution>();
        row->setInput(std::string(seed.input));
        row->setOutput(std::string(seed.output));
        row->setIsBlankNew(false);
        row->setTimestamp(now);
    }
    cdSaveContext(&context_, "addDefaultSubstitutions()");
}

void SubstitutionsViewModel::addBlankNew() {
    auto row = context_.insertNew<store::Substitution>();
    row->setIsBlankNew(true);
    row->setTimestamp(secondsSince1970(clock_.now()));
    sortedSubstitutions.push_back(row);
    cdSaveContext(&context_, "addBlankNew(viewContext:parent:)");
}

void SubstitutionsViewModel::setInput(const Row& row, const std::string& text) {
    row->setInput(text);
    saveAndRefresh(row);
}

void SubstitutionsViewModel::setOutput(const Row& row, const std::string& text) {
    row->setOutput(text);
    saveAndRefresh(row);
}

void SubstitutionsViewModel::saveAndRefresh(const Row& row) {
    sortDisabled = true;
    updateTestOutput();
    cdSaveContext(&context_, "saveAndRefresh()");
    checkBlankStatus(row);
}

void SubstitutionsViewModel::checkBlankStatus(const Row& row) {
    if (row->isBlankNew() && !isEmpty(*row)) {
        // The blank row has become a rule; a new blank row opens under it.
        row->setIsBlankNew(false);
        addBlankNew();
    } else if (!row->isBlankNew() && isEmpty(*row)) {
        // Only the last rule turns back into the blank row; an emptied row higher up stays as an empty rule.
        const Row* lastRule = nullptr;
        for (const auto& r : sortedSubstitutions)
            if (!r->isBlankNew()) lastRule = &r;
        if (lastRule && *lastRule == row) {
            std::vector<Row> blanks;
            for (auto& r : fetched())
                if (r->isBlankNew()) blanks.push_back(r);
            if (!blanks.empty()) {
                Row blank = blanks.back();
                context_.deleteObject(blank);
                std::erase(sortedSubstitutions, blank);
            }
            row->setIsBlankNew(true);
        }
    }
    cdSaveContext(&context_, "checkBlankStatus()");
}

void SubstitutionsViewModel::deleteRow(const Row& row) {
    context_.deleteObject(row);
    cdSaveContext(&context_, "body");
    updateTestOutput();
    std::erase(sortedSubstitutions, row);
}

bool SubstitutionsViewModel::fetchedCountChanged() {
    const std::size_t count = fetched().size();
    if (sortedSubstitutions.empty()) sortedSubstitutions = sort();
    const bool grew = count > lastSubstitutionsCount;
    lastSubstitutionsCount = count;
    return grew;
}

void SubstitutionsViewModel::setTestInputText(std::string text) {
    testInputText = std::move(text);
    updateTestOutput();
}

void SubstitutionsViewModel::setExtraRule(std::string input, std::string output) {
    extraInput = std::move(input);
    extraOutput = std::move(output);
    updateTestOutput();
}

void SubstitutionsViewModel::updateTestOutput() {
    std::optional<std::string> extra;
    if (!extraInput.empty()) extra = extraInput;
    testOutputText = applySubstitutions(context_, testInputText, extra, extraOutput);
}

} // namespace sprelio
