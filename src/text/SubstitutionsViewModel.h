#pragma once
// The rule table's logic without its widgets: the always-present blank last row, the three-way sort by either
// column, the seed rules and the test box. All of it runs on the main loop, on the view context.
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Clock.h"
#include "platform/FrontmostApp.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Settings.h"

namespace sprelio {

enum class SortOrder { none, ascend, descend };
std::string_view sortOrderName(SortOrder order);
std::optional<SortOrder> sortOrderFromName(std::string_view name);

// Both input and output empty (nil counts as empty).
bool isEmpty(const store::Substitution& substitution);
// Debug line of a row; the rule texts are the user's and show as "<privatized>".
void printContents(const store::Substitution& substitution);

class SubstitutionsViewModel {
public:
    using Row = std::shared_ptr<store::Substitution>;

    SubstitutionsViewModel(store::ManagedObjectContext& context, store::Settings& settings,
                           const platform::Clock& clock);

    // The table appears: seeds the rules when there are none, brings Sprelio to the front (when a workspace is
    // given), opens the blank row when there is none, and sorts.
    void onAppear(platform::Workspace* workspace);

    // The fetched rows in the stored sort order, the blank row last.
    std::vector<Row> sort();
    // A click on the header of the input ("Search") or output ("Replace") column.
    void headerClicked(bool inputColumn);
    // "arrow.up" or "arrow.down" on the active column's header; none on the other or when unsorted.
    std::optional<std::string> headerArrow(bool inputColumn) const;

    void addDefaultSubstitutions();
    void addBlankNew();

    // Editing a row: beginning an edit freezes the order; every change saves and keeps the blank row in place.
    void beginEditing() { sortDisabled = true; }
    void setInput(const Row& row, const std::string& text);
    void setOutput(const Row& row, const std::string& text);
    void saveAndRefresh(const Row& row);
    void checkBlankStatus(const Row& row);
    void deleteRow(const Row& row);

    // The number of fetched rows changed; returns true when the table should scroll to its bottom.
    bool fetchedCountChanged();

    // The test box.
    void setTestInputText(std::string text);
    void setExtraRule(std::string input, std::string output);
    void updateTestOutput();

    std::string testInputText;
    std::string testOutputText;
    std::string extraInput;
    std::string extraOutput;
    bool sortDisabled = false;
    std::vector<Row> sortedSubstitutions;
    std::size_t lastSubstitutionsCount = 0;

private:
    std::vector<Row> fetched() const;

    store::ManagedObjectContext& context_;
    store::Settings& settings_;
    const platform::Clock& clock_;
};

} // namespace sprelio
