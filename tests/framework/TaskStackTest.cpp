#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/LocalizedString.h"
#include "framework/CTask.h"

namespace Velmo {
namespace {

// Writes "undo N" / "redo N" to a shared log and "gone N" when destroyed.
class StepTask : public CTask {
public:
    StepTask(int n, std::vector<std::string>& log) : n_(n), log_(log) {}
    ~StepTask() override { log_.push_back("gone " + std::to_string(n_)); }
    std::string Name() const override {
        return "$$$/Test/Task/Step" + std::to_string(n_) + "=Step " + std::to_string(n_);
    }
    void Undo() override { log_.push_back("undo " + std::to_string(n_)); }
    void Redo() override { log_.push_back("redo " + std::to_string(n_)); }

private:
    int n_;
    std::vector<std::string>& log_;
};

class SmallStack : public CTaskStack {
public:
    size_t Capacity() const override { return 3; }
};

TEST(TaskStack, UndoRedoLabelsAndANewPushDroppingTheRedoSide) {
    std::vector<std::string> log;
    CTaskStack stack;
    EXPECT_EQ(stack.UndoLabel(), "Cannot Undo");
    EXPECT_EQ(stack.RedoLabel(), "Cannot Redo");
    stack.Undo();  // nothing to undo: no effect
    stack.Push(std::make_unique<StepTask>(1, log));
    stack.Push(std::make_unique<StepTask>(2, log));
    EXPECT_TRUE(log.empty());  // pushing records, it does not perform
    EXPECT_EQ(stack.UndoLabel(), "Undo Step 2");
    stack.Undo();
    EXPECT_EQ(stack.UndoLabel(), "Undo Step 1");
    EXPECT_EQ(stack.RedoLabel(), "Redo Step 2");
    stack.Redo();
    stack.Undo();
    stack.Push(std::make_unique<StepTask>(3, log));  // forks: step 2 is gone
    EXPECT_FALSE(stack.CanRedo());
    EXPECT_EQ(log, (std::vector<std::string>{"undo 2", "redo 2", "undo 2", "gone 2"}));

    // The labels go through the translation table, the name in ^0.
    Project::SetTranslationTable(Project::TranslationTable::Parse(
        "$$$/Velmo/Tasks/UndoOp=^0 rückgängig\n$$$/Test/Task/Step3=Schritt 3\n"));
    EXPECT_EQ(stack.UndoLabel(), "Schritt 3 rückgängig");
    Project::SetTranslationTable({});
}

TEST(TaskStack, APushBeyondCapacityDropsTheOldestAndPositionsNameStates) {
    std::vector<std::string> log;
    SmallStack stack;
    EXPECT_EQ(stack.Position(), 0);
    for (int n = 1; n <= 3; ++n)
        stack.Push(std::make_unique<StepTask>(n, log));
    EXPECT_EQ(stack.Position(), 3);
    stack.Push(std::make_unique<StepTask>(4, log));
    EXPECT_EQ(log, std::vector<std::string>{"gone 1"});
    EXPECT_EQ(stack.Size(), 3u);
    while (stack.CanUndo())
        stack.Undo();
    EXPECT_EQ(log, (std::vector<std::string>{"gone 1", "undo 4", "undo 3", "undo 2"}));
    // The state below the oldest kept task keeps the number it had.
    EXPECT_EQ(stack.Position(), 1);
    stack.Redo();
    EXPECT_EQ(stack.Position(), 2);
    stack.Push(std::make_unique<StepTask>(5, log));
    EXPECT_EQ(stack.Position(), 5);  // a new state, never an old number
    stack.Clear();
    EXPECT_EQ(stack.Position(), 5);  // clearing the history keeps the state
    EXPECT_FALSE(stack.CanUndo());
}

TEST(TaskStack, ToggleLastStateFlipsBetweenTheLastTwoStates) {
    std::vector<std::string> log;
    CTaskStack stack;
    stack.ToggleLastState();  // nothing to toggle
    stack.Push(std::make_unique<StepTask>(1, log));
    stack.Push(std::make_unique<StepTask>(2, log));
    EXPECT_EQ(stack.ToggleLabel(), "Undo Step 2");
    stack.ToggleLastState();
    EXPECT_EQ(stack.ToggleLabel(), "Redo Step 2");
    stack.ToggleLastState();
    stack.ToggleLastState();
    // Plain steps end the toggle: the next toggle undoes, it does not redo
    // step 2.
    stack.Undo();
    stack.Redo();
    stack.ToggleLastState();
    EXPECT_EQ(log, (std::vector<std::string>{"undo 2", "redo 2", "undo 2", "undo 1", "redo 1",
                                             "undo 1"}));
    EXPECT_TRUE(stack.ToggleRedoes());
}

}  // namespace
}  // namespace Velmo
