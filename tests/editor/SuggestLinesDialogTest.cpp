// Suggest Lines in the editor: `curvana edit` on the demo's sample
// photograph, the command worked through the dialog's button and flyout.
#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QPushButton>

#include "../framework/QtTestApp.h"
#include "editordriver/EditorDriver.h"
#include "host/HostTestUtil.h"
#include "host/ImageFiles.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;

int Count(QWidget& dialog, const char* what) {
    QWidget* pane = View(dialog, "Project/Dialog/PreviewPane");
    pane->repaint();
    return pane->property(what).toInt();
}

QString UndoLabel(QWidget& dialog) {
    QAction* undo = Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo");
    auto* menu = qobject_cast<QMenu*>(undo->parent());
    Q_EMIT menu->aboutToShow();
    const QString label = undo->text();
    Q_EMIT menu->aboutToHide();
    return label;
}

int Edit(const ScratchDir& dir, const fs::path& photo,
         const std::function<void(QWidget&)>& script) {
    ::test::QtApp();
    setenv("XDG_CONFIG_HOME", (dir / "xdg").c_str(), 1);
    return RunCurvana({"edit", photo.string(), "-o", (dir / "out.jpg").string(), "--module",
                       CURVANA_MODULE, "-q"},
                      script);
}

// The suggestions arrive as one step of ordinary constraints, all selected;
// one undo takes every one away, redo brings them back, and the flyout's
// entry runs the same command.
TEST(SuggestLinesDialog, AddsTheLinesSelectedAsOneUndoableStep) {
    ScratchDir dir;
    Edit(dir, CURVANA_SAMPLE_PHOTO, [](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        ASSERT_EQ(Count(dialog, "constraintsDrawn"), 0);

        ViewAs<QPushButton>(dialog, "Project/Dialog/SuggestLinesButton")->click();
        ASSERT_TRUE(WaitUntil([&] { return Count(dialog, "constraintsDrawn") > 0; }, 60000));
        const int added = Count(dialog, "constraintsDrawn");
        EXPECT_GE(added, 6);
        EXPECT_EQ(Count(dialog, "constraintsSelected"), added);
        EXPECT_EQ(UndoLabel(dialog), "Undo Suggest Lines");

        Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo")->trigger();
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_EQ(Count(dialog, "constraintsDrawn"), 0);
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Redo")->trigger();
        EXPECT_TRUE(WaitUntil([&] { return Count(dialog, "constraintsDrawn") == added; }, 60000));

        Command(dialog, "Project/Dialog/CorrectionFlyout",
                "$$$/Curvana/CorrectionMenu/SuggestLines")
            ->trigger();
        EXPECT_TRUE(
            WaitUntil([&] { return Count(dialog, "constraintsDrawn") == 2 * added; }, 60000));
        EXPECT_EQ(Count(dialog, "constraintsSelected"), added);
    });
}

// A photo of noise has no straight edge: the command says so and adds
// nothing, not even an empty step to undo.
TEST(SuggestLinesDialog, SaysSoWhenThePhotoHasNoStraightEdge) {
    ScratchDir dir;
    const fs::path noise = dir / "noise.png";
    writePng(noise, randomRaster(ImageInfo{600, 400, Mode::RGB, 8}, 3), {});
    Edit(dir, noise, [](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        ModalAnswers answers;
        QString alert;
        answers.Answer("OK", &alert);
        ViewAs<QPushButton>(dialog, "Project/Dialog/SuggestLinesButton")->click();
        EXPECT_EQ(answers.Pending(), 0u);
        EXPECT_EQ(alert, "No straight edges were found in this photo.");
        EXPECT_EQ(Count(dialog, "constraintsDrawn"), 0);
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
    });
}

}  // namespace
}  // namespace Curvana::Host::Test
