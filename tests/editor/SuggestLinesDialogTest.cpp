// Suggest Lines in the editor: `curvana edit` on the demo's sample
// photograph, the command worked through the dialog's button and flyout.
#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QPushButton>

#include "../framework/QtTestApp.h"
#include "editordriver/EditorDriver.h"
#include "host/HostTestUtil.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;

// The suggestions arrive as one step of ordinary constraints, all selected;
// one undo takes every one away, redo brings them back, and the flyout's
// entry runs the same command.
TEST(SuggestLinesDialog, AddsTheLinesSelectedAsOneUndoableStep) {
    ::test::QtApp();
    ScratchDir dir;
    setenv("XDG_CONFIG_HOME", (dir / "xdg").c_str(), 1);
    RunCurvana(
        {"edit", CURVANA_SAMPLE_PHOTO, "-o", (dir / "out.jpg").string(), "--module", CURVANA_MODULE,
         "-q"},
        [](QWidget& dialog) {
            QWidget* pane = View(dialog, "Project/Dialog/PreviewPane");
            const auto count = [pane](const char* what) {
                pane->repaint();
                return pane->property(what).toInt();
            };
            const auto undoLabel = [&dialog] {
                QAction* undo = Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo");
                auto* menu = qobject_cast<QMenu*>(undo->parent());
                Q_EMIT menu->aboutToShow();
                const QString label = undo->text();
                Q_EMIT menu->aboutToHide();
                return label;
            };
            ASSERT_TRUE(WaitForPreview(dialog));
            ASSERT_EQ(count("constraintsDrawn"), 0);

            ViewAs<QPushButton>(dialog, "Project/Dialog/SuggestLinesButton")->click();
            ASSERT_TRUE(WaitUntil([&] { return count("constraintsDrawn") > 0; }, 60000));
            const int added = count("constraintsDrawn");
            EXPECT_GE(added, 6);
            EXPECT_EQ(count("constraintsSelected"), added);
            EXPECT_EQ(undoLabel(), "Undo Suggest Lines");

            Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo")->trigger();
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_EQ(count("constraintsDrawn"), 0);
            EXPECT_EQ(undoLabel(), "Cannot Undo");
            Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Redo")->trigger();
            EXPECT_TRUE(WaitUntil([&] { return count("constraintsDrawn") == added; }, 60000));

            Command(dialog, "Project/Dialog/CorrectionFlyout",
                    "$$$/Curvana/CorrectionMenu/SuggestLines")
                ->trigger();
            EXPECT_TRUE(WaitUntil([&] { return count("constraintsDrawn") == 2 * added; }, 60000));
            EXPECT_EQ(count("constraintsSelected"), added);
        });
}

}  // namespace
}  // namespace Curvana::Host::Test
