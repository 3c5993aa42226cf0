#include <gtest/gtest.h>

#include <QClipboard>
#include <QMimeData>
#include <memory>

#include "../framework/QtTestApp.h"
#include "FakeWorkspace.h"
#include "constraints/ConstraintFile.h"
#include "core/LocalizedString.h"
#include "editor/PConstraintClipboard.h"
#include "editor/PEditMenu.h"
#include "editor/PTasks.h"

namespace Project {
namespace {

using test::FakeWorkspace;
using Cmd = PEditCommand;

class EditMenuTest : public ::testing::Test {
protected:
    int32_t AddLine(PointF a, PointF b) {
        const int32_t id = ws.set.Add(std::make_unique<LineConstraint>(a.x, a.y, b.x, b.y));
        stack.Push(std::make_unique<PAddConstraintTask>(ws, *ws.set.Find(id)));
        return id;
    }
    int32_t AddPlane() {
        auto plane = std::make_unique<PlaneConstraint>();
        for (const PointF p : {PointF{100, 100}, PointF{300, 100}, PointF{300, 250}})
            plane->AddVertex(p, 2);
        const int32_t id = ws.set.Add(std::move(plane));
        stack.Push(std::make_unique<PAddConstraintTask>(ws, *ws.set.Find(id)));
        return id;
    }
    QByteArray Clipboard() const {
        const QMimeData* data = QGuiApplication::clipboard()->mimeData();
        return data ? data->data(kConstraintMimeType) : QByteArray();
    }
    std::string Text(Cmd c) { return menu.Action(c)->text().toStdString(); }

    QApplication& app = ::test::QtApp();
    FakeWorkspace ws;
    PTaskStack stack;
    PEditMenu menu{stack, ws};
};

TEST_F(EditMenuTest, ElevenEntriesWhoseLabelsFollowTheHistory) {
    std::vector<std::string> commands;
    for (const QAction* action : menu.Menu().actions())
        if (!action->isSeparator())
            commands.push_back(action->objectName().toStdString());
    ASSERT_EQ(commands.size(), kEditCommandCount);
    for (size_t k = 0; k < kEditCommandCount; ++k)
        EXPECT_EQ(commands[k], KeyPath(kEditMenuKeys[k]));
    EXPECT_EQ(menu.Action(Cmd::UndoRedo)->shortcut(), QKeySequence("Ctrl+Z"));
    EXPECT_EQ(menu.Action(Cmd::StepForward)->shortcut(), QKeySequence("Shift+Ctrl+Z"));
    EXPECT_EQ(menu.Action(Cmd::StepBackward)->shortcut(), QKeySequence("Alt+Ctrl+Z"));

    menu.Update();
    EXPECT_EQ(Text(Cmd::Undo), "Cannot Undo");
    EXPECT_EQ(Text(Cmd::Redo), "Cannot Redo");
    EXPECT_EQ(Text(Cmd::ToggleLastState), "Toggle Last State");
    EXPECT_EQ(Text(Cmd::StepBackward), "Step Backward");
    EXPECT_FALSE(menu.Action(Cmd::UndoRedo)->isEnabled());
    EXPECT_FALSE(menu.Run(Cmd::StepBackward));

    AddLine({0, 0}, {100, 0});
    AddLine({0, 50}, {100, 50});
    menu.Update();
    EXPECT_EQ(Text(Cmd::Undo), "Undo Add Constraint");
    EXPECT_EQ(Text(Cmd::UndoRedo), "Undo Add Constraint");
    // Ctrl+Z toggles between the last two states, its label saying which way.
    EXPECT_TRUE(menu.Run(Cmd::UndoRedo));
    menu.Update();
    EXPECT_EQ(ws.set.Size(), 1u);
    EXPECT_EQ(Text(Cmd::UndoRedo), "Redo Add Constraint");
    EXPECT_EQ(Text(Cmd::Redo), "Redo Add Constraint");
    menu.Run(Cmd::UndoRedo);
    EXPECT_EQ(ws.set.Size(), 2u);
    // The steps walk through the history.
    menu.Run(Cmd::StepBackward);
    menu.Run(Cmd::StepBackward);
    EXPECT_TRUE(ws.set.Empty());
    EXPECT_FALSE(menu.Run(Cmd::StepBackward));
    menu.Run(Cmd::StepForward);
    EXPECT_EQ(ws.set.Size(), 1u);
    menu.Run(Cmd::ToggleLastState);
    EXPECT_TRUE(ws.set.Empty());
}

TEST_F(EditMenuTest, CopyAndPasteCarryConstraintFileBytes) {
    const int32_t line = AddLine({10, 20}, {400, 30});
    AddLine({5, 5}, {5, 500});
    const int32_t plane = AddPlane();
    EXPECT_FALSE(menu.Enabled(Cmd::Copy));
    ws.set.SetSelection({plane, line});
    ASSERT_TRUE(menu.Run(Cmd::Copy));

    // The clipboard holds a constraint file of the photo with the two.
    const QByteArray bytes = Clipboard();
    ASSERT_GE(bytes.size(), 4);
    EXPECT_EQ(bytes.left(4), QByteArray("FCVC"));  // "CVCF", little-endian
    ConstraintSet read;
    SimpleConstraintFileContext photo = ws.photo;
    ASSERT_TRUE(readConstraintData(read, photo,
                                   std::span(reinterpret_cast<const uint8_t*>(bytes.constData()),
                                             static_cast<size_t>(bytes.size()))));
    ASSERT_EQ(read.Size(), 2u);
    EXPECT_EQ(AsLine(*read.At(0))->Second(), (PointF{400, 30}));  // list order kept
    EXPECT_NE(AsPlane(*read.At(1)), nullptr);

    // Paste adds them as new constraints, selected, in one undo step with
    // one re-solve.
    const int resolves = ws.resolves;
    ASSERT_TRUE(menu.Run(Cmd::Paste));
    ASSERT_EQ(ws.set.Size(), 5u);
    EXPECT_EQ(ws.resolves, resolves + 1);
    const std::vector<int32_t> pasted = {ws.set.At(3)->GetId(), ws.set.At(4)->GetId()};
    EXPECT_EQ(ws.set.Selection(), pasted);
    EXPECT_GT(pasted[0], plane);
    EXPECT_EQ(AsLine(*ws.set.At(3))->First(), (PointF{10, 20}));
    EXPECT_EQ(AsPlane(*ws.set.At(4))->Vertices(), AsPlane(*ws.set.Find(plane))->Vertices());
    EXPECT_EQ(stack.UndoLabel(), "Undo Paste");
    stack.Undo();
    EXPECT_EQ(ws.set.Size(), 3u);
    EXPECT_EQ(ws.resolves, resolves + 2);
    stack.Redo();
    EXPECT_EQ(ws.set.At(4)->GetId(), pasted[1]);

    // Another photo refuses them with the reader's message and stays as it is.
    FakeWorkspace other;
    other.photo.width = 2000;
    PTaskStack otherStack;
    PEditMenu otherMenu(otherStack, other);
    EXPECT_FALSE(otherMenu.Run(Cmd::Paste));
    ASSERT_EQ(other.alerts.size(), 1u);
    EXPECT_NE(other.alerts[0].find("Image size doesn't match."), std::string::npos);
    EXPECT_TRUE(other.set.Empty());
    EXPECT_FALSE(otherStack.CanUndo());
    // So do bytes that are no constraint file.
    auto junk = std::make_unique<QMimeData>();
    junk->setData(kConstraintMimeType, QByteArray("junk"));
    QGuiApplication::clipboard()->setMimeData(junk.release());
    EXPECT_FALSE(menu.Run(Cmd::Paste));
    EXPECT_EQ(ws.alerts, std::vector<std::string>{"Not a valid constraint file."});
    EXPECT_EQ(ws.set.Size(), 5u);
}

TEST_F(EditMenuTest, CutClearAndSelectAllActOnTheSelection) {
    const int32_t a = AddLine({0, 0}, {100, 0});
    const int32_t b = AddLine({0, 50}, {100, 50});
    const int32_t c = AddPlane();
    ASSERT_TRUE(menu.Run(Cmd::SelectAll));
    EXPECT_EQ(ws.set.Selection(), (std::vector<int32_t>{a, b, c}));

    ws.set.SetSelection({b});
    ASSERT_TRUE(menu.Run(Cmd::Cut));
    EXPECT_EQ(ws.set.Find(b), nullptr);
    EXPECT_EQ(ws.removing, std::vector<int32_t>{b});
    EXPECT_FALSE(Clipboard().isEmpty());
    EXPECT_EQ(stack.UndoLabel(), "Undo Cut");
    stack.Undo();
    EXPECT_NE(ws.set.Find(b), nullptr);

    ws.set.SetSelection({c, a});
    const int resolves = ws.resolves;
    ASSERT_TRUE(menu.Run(Cmd::Clear));
    EXPECT_EQ(ws.set.Size(), 1u);
    EXPECT_TRUE(ws.set.Selection().empty());
    EXPECT_EQ(ws.resolves, resolves + 1);
    EXPECT_FALSE(menu.Run(Cmd::Clear));  // nothing selected
    EXPECT_EQ(stack.UndoLabel(), "Undo Clear");
    stack.Undo();
    EXPECT_EQ(ws.set.Size(), 3u);
    EXPECT_NE(ws.set.Find(a), nullptr);
    EXPECT_NE(ws.set.Find(c), nullptr);
}

}  // namespace
}  // namespace Project
