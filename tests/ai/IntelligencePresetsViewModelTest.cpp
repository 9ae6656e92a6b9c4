// The AI tab's presets over a real store: adding, editing, ordering and removing, each saved at once.
#include <gtest/gtest.h>

#include "ai/IntelligencePresetsViewModel.h"
#include "platform/test/TestPlatform.h"
#include "store/Persistence.h"

namespace sprelio {
namespace {

class Presets : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(container_.loadPersistentStores().has_value());
        model_ = std::make_unique<IntelligencePresetsViewModel>(IntelligencePresetsViewModel::Dependencies{
            container_.viewContext(), [this] { return offeredModels_; }, [this] { ++changes_; }});
    }
    std::vector<std::string> titles() const {
        std::vector<std::string> out;
        for (const auto& preset : model_->presets()) out.push_back(preset->title().value_or("<nil>"));
        return out;
    }
    // What a second reader of the store sees: only saved changes.
    std::size_t storedCount() {
        store::ManagedObjectContext& context = container_.viewContext();
        return context.fetchAll<store::IntelligencePreset>().size();
    }

    platform::test::RecordingLogSink logs_;
    store::PersistentContainer container_{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
    std::vector<std::string> offeredModels_{"small-1", "large-2"};
    int changes_ = 0;
    std::unique_ptr<IntelligencePresetsViewModel> model_;
};

TEST_F(Presets, ANewPresetGetsAnIdentityTheDefaultModelAndTheEndOfTheList) {
    const auto first = model_->add();
    const auto second = model_->add();
    ASSERT_TRUE(first->uuid() && second->uuid());
    EXPECT_NE(*first->uuid(), *second->uuid());
    EXPECT_EQ(first->title(), std::string(IntelligencePresetsViewModel::kNewPresetTitle));
    EXPECT_EQ(first->prompt(), std::string());
    EXPECT_EQ(first->model(), std::string("small-1")) << "the first model the servers offer";
    EXPECT_LT(first->order(), second->order());
    EXPECT_FALSE(container_.viewContext().hasChanges()) << "every change is saved at once";
    EXPECT_EQ(changes_, 2);

    offeredModels_.clear();
    EXPECT_EQ(model_->add()->model(), std::nullopt) << "no model: the service's default applies";
}

TEST_F(Presets, EditsAreSavedAndAnUnchangedValueSavesNothing) {
    const auto preset = model_->add();
    const int before = changes_;
    model_->setTitle(preset, "Summarise");
    model_->setPrompt(preset, "Summarise the text in one sentence.");
    model_->setModel(preset, "large-2");
    EXPECT_EQ(changes_, before + 3);
    EXPECT_FALSE(container_.viewContext().hasChanges());
    EXPECT_EQ(preset->title(), std::string("Summarise"));
    EXPECT_EQ(preset->prompt(), std::string("Summarise the text in one sentence."));
    EXPECT_EQ(preset->model(), std::string("large-2"));

    model_->setTitle(preset, "Summarise");
    model_->setModel(preset, "large-2");
    EXPECT_EQ(changes_, before + 3);
    model_->setModel(preset, "");
    EXPECT_EQ(preset->model(), std::nullopt);
    for (const auto& line : logs_.lines()) {
        EXPECT_EQ(line.message.find("one sentence"), std::string::npos) << "the prompt is the user's: " << line.message;
    }
}

TEST_F(Presets, MovingRenumbersAndRemovingDeletesFromTheStore) {
    const auto a = model_->add();
    const auto b = model_->add();
    const auto c = model_->add();
    model_->setTitle(a, "A");
    model_->setTitle(b, "B");
    model_->setTitle(c, "C");
    model_->move(c, -1);
    EXPECT_EQ(titles(), (std::vector<std::string>{"A", "C", "B"}));
    model_->move(a, -1); // already first
    model_->move(b, +1); // already last
    EXPECT_EQ(titles(), (std::vector<std::string>{"A", "C", "B"}));
    EXPECT_EQ(a->order(), 0);
    EXPECT_EQ(c->order(), 1);
    EXPECT_EQ(b->order(), 2);

    model_->remove(c);
    EXPECT_EQ(titles(), (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(storedCount(), 2u);
    EXPECT_FALSE(container_.viewContext().hasChanges());
}

} // namespace
} // namespace sprelio
