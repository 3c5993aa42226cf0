// Suggest Lines in the editor: `curvana edit` on the demo's sample
// photograph, the command worked through the dialog's button and flyout.
#include <QPushButton>

#include "DialogFixture.h"
#include "host/ImageFiles.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;
using SuggestLinesDialog = DialogFixture;

// The suggestions arrive as one step of ordinary constraints, all selected;
// one undo takes every one away, redo brings them back, and the flyout's
// entry runs the same command.
TEST_F(SuggestLinesDialog, AddsTheLinesSelectedAsOneUndoableStep) {
    Edit([&](QWidget& dialog) {
        ASSERT_EQ(Drawn(), 0);

        ViewAs<QPushButton>(dialog, "Project/Dialog/SuggestLinesButton")->click();
        ASSERT_TRUE(WaitUntil([&] { return Drawn() > 0; }, 60000));
        const int added = Drawn();
        EXPECT_GE(added, 6);
        EXPECT_EQ(Drawn("constraintsSelected"), added);
        EXPECT_EQ(UndoLabel(dialog), "Undo Suggest Lines");

        Undo(dialog);
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_EQ(Drawn(), 0);
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        Redo(dialog);
        EXPECT_TRUE(WaitUntil([&] { return Drawn() == added; }, 60000));

        Command(dialog, "Project/Dialog/CorrectionFlyout",
                "$$$/Curvana/CorrectionMenu/SuggestLines")
            ->trigger();
        EXPECT_TRUE(WaitUntil([&] { return Drawn() == 2 * added; }, 60000));
        EXPECT_EQ(Drawn("constraintsSelected"), added);
    });
}

// A photo of noise has no straight edge: the command says so and adds
// nothing, not even an empty step to undo.
TEST_F(SuggestLinesDialog, SaysSoWhenThePhotoHasNoStraightEdge) {
    const fs::path noise = dir / "noise.png";
    writePng(noise, randomRaster(ImageInfo{600, 400, Mode::RGB, 8}, 3), {});
    Edit(
        [&](QWidget& dialog) {
            ModalAnswers answers;
            QString alert;
            answers.Answer("OK", &alert);
            ViewAs<QPushButton>(dialog, "Project/Dialog/SuggestLinesButton")->click();
            EXPECT_EQ(answers.Pending(), 0u);
            EXPECT_EQ(alert, "No straight edges were found in this photo.");
            EXPECT_EQ(Drawn(), 0);
            EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        },
        {}, noise);
}

}  // namespace
}  // namespace Curvana::Host::Test
