#include <gtest/gtest.h>

#include <QEnterEvent>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QVBoxLayout>
#include <vector>

#include "QtTestApp.h"
#include "core/LocalizedString.h"
#include "framework/CCursors.h"
#include "framework/Views.h"

namespace Velmo {
namespace {

TEST(Views, TheHelpLineShowsTheHelpOfTheControlUnderThePointer) {
    test::QtApp();
    QWidget window;
    auto* layout = new QVBoxLayout(&window);
    auto* help = new CHelpLine(&window, "$$$/Test/DefaultHelp=Place mouse over control for help");
    auto* ok = new QPushButton("OK");
    auto* pane = new QWidget;  // has help; its child has none of its own
    auto* inner = new QLineEdit(pane);
    auto* plain = new QPushButton("Plain");
    SetHelpKey(*ok, "$$$/Test/Help/OK=Commit changes.");
    SetHelpKey(*pane, "$$$/Test/Help/Pane=A pane.");
    for (QWidget* w : {static_cast<QWidget*>(help), static_cast<QWidget*>(ok), pane,
                       static_cast<QWidget*>(plain)})
        layout->addWidget(w);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    EXPECT_EQ(help->text(), "Place mouse over control for help");

    const auto enter = [](QWidget* w) {
        QEnterEvent event(QPointF(1, 1), QPointF(1, 1), w->mapToGlobal(QPointF(1, 1)));
        QApplication::sendEvent(w, &event);
    };
    const auto leave = [](QWidget* w) {
        QEvent event(QEvent::Leave);
        QApplication::sendEvent(w, &event);
    };
    enter(ok);
    EXPECT_EQ(help->text(), "Commit changes.");
    leave(ok);
    EXPECT_EQ(help->text(), "Place mouse over control for help");
    enter(pane);
    enter(inner);
    EXPECT_EQ(help->text(), "A pane.");  // the enclosing control's help
    leave(inner);
    EXPECT_EQ(help->text(), "A pane.");
    leave(pane);
    enter(plain);
    EXPECT_EQ(help->text(), "Place mouse over control for help");

    // Real pointer moves reach it the same way.
    QTest::mouseMove(ok, QPoint(5, 5));
    EXPECT_EQ(help->text(), "Commit changes.");
}

TEST(Views, FocusGoesToAViewByIdOrElseToTheFallback) {
    test::QtApp();
    QWidget window;
    auto* layout = new QVBoxLayout(&window);
    auto* field = new QLineEdit;
    auto* ok = new QPushButton("OK");
    SetViewId(*field, "Test/Dialog/Field");
    SetViewId(*ok, "Test/Dialog/OK");
    layout->addWidget(field);
    layout->addWidget(ok);
    window.show();
    EXPECT_EQ(FocusView(window, ViewIdOf("Test/Dialog/Field"), ViewIdOf("Test/Dialog/OK")), field);
    EXPECT_EQ(window.focusWidget(), field);
    field->setEnabled(false);
    EXPECT_EQ(FocusView(window, ViewIdOf("Test/Dialog/Field"), ViewIdOf("Test/Dialog/OK")), ok);
    EXPECT_EQ(FocusView(window, ViewIdOf("Test/Dialog/Missing"), ViewIdOf("Test/Dialog/OK")), ok);
    EXPECT_EQ(FocusView(window, ViewIdOf("Test/Dialog/Missing")), nullptr);
    EXPECT_EQ(FindView(window, "Test/Dialog/OK"), ok);
}

TEST(Views, MenusAreBuiltFromLocalisedKeys) {
    test::QtApp();
    Project::SetTranslationTable(Project::TranslationTable::Parse("$$$/Test/Menu/Load=Laden...\n"));
    QMenu menu;
    const auto actions = AddMenuItems(
        menu, {{"$$$/Test/Menu/Load=Load..."},
               {kMenuSeparator},
               {"$$$/Test/Menu/Save=&Save...", "Test/Command/Save", QKeySequence("Ctrl+S")}});
    Project::SetTranslationTable({});
    ASSERT_EQ(actions.size(), 3u);
    EXPECT_EQ(actions[0]->text(), "Laden...");
    EXPECT_EQ(actions[0]->objectName(), "$$$/Test/Menu/Load");
    EXPECT_TRUE(actions[1]->isSeparator());
    EXPECT_EQ(FindCommand(menu, "Test/Command/Save"), actions[2]);
    EXPECT_EQ(actions[2]->text(), "&Save...");
    EXPECT_EQ(actions[2]->shortcut(), QKeySequence("Ctrl+S"));
}

TEST(Cursors, AreDrawnAndTheRotationCursorsDifferByDirection) {
    test::QtApp();
    for (const CCursorKind kind :
         {CCursorKind::Crosshair, CCursorKind::Move, CCursorKind::Delete, CCursorKind::Orientation,
          CCursorKind::Polygon, CCursorKind::Rotate, CCursorKind::ZoomIn, CCursorKind::ZoomOut}) {
        const QCursor cursor = CCursors::Get(kind);
        const QImage image = cursor.pixmap().toImage();
        ASSERT_EQ(image.size(), QSize(32, 32)) << static_cast<int>(kind);
        EXPECT_TRUE(QRect(0, 0, 32, 32).contains(cursor.hotSpot()));
        int opaque = 0;
        for (int y = 0; y < 32; ++y)
            for (int x = 0; x < 32; ++x)
                opaque += qAlpha(image.pixel(x, y)) > 128;
        EXPECT_GT(opaque, 20) << static_cast<int>(kind);
    }
    EXPECT_EQ(CCursors::Get(CCursorKind::Arrow).shape(), Qt::ArrowCursor);
    std::vector<QImage> rotations;
    for (int k = 0; k < kRotationCursors; ++k)
        rotations.push_back(CCursors::Picture(CCursorKind::Rotate, k).toImage());
    for (int a = 0; a < kRotationCursors; ++a)
        for (int b = a + 1; b < kRotationCursors; ++b)
            EXPECT_NE(rotations[a], rotations[b]) << a << " " << b;
    EXPECT_EQ(CCursors::Picture(CCursorKind::Rotate, 9).toImage(), rotations[1]);
    EXPECT_EQ(CCursors::RotationIndexForAngle(90.0), 0);
    EXPECT_EQ(CCursors::RotationIndexForAngle(135.0), 1);
    EXPECT_EQ(CCursors::RotationIndexForAngle(0.0), 6);
    EXPECT_EQ(CCursors::RotationIndexForAngle(-90.0), 4);
}

}  // namespace
}  // namespace Velmo
