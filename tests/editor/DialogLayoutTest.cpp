#include <gtest/gtest.h>

#include <QComboBox>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>
#include <set>

#include "../framework/QtTestApp.h"
#include "editor/PDialogLayout.h"
#include "framework/CImagePane.h"
#include "framework/CTool.h"
#include "framework/Views.h"
#include "framework/Widgets.h"
#include "framework/ZelLoader.h"

namespace Project {
namespace {

TEST(DialogLayout, TheCompiledInLayoutBuildsTheDialogsViews) {
    ::test::QtApp();
    Velmo::CToolSet tools("Project/Tool/MainSet");
    struct ToolRow {
        const char *name, *id, *tip;
    };
    for (const ToolRow& t :
         {ToolRow{"ManageConstraintTool", "Project/Tool/ManageConstraint",
                  "$$$/Curvana/Tool/ManageConstraint=Constraint Tool (C)"},
          ToolRow{"PlaneTool", "Project/Tool/PlaneTool",
                  "$$$/Curvana/Tool/PlaneTool=Polygon Constraint Tool (Y)"},
          ToolRow{"MoveImageTool", "Project/Tool/MoveImage",
                  "$$$/Curvana/Tool/MoveImage=Move Tool (M)"},
          ToolRow{"HandTool", "Project/Tool/Hand", "$$$/Curvana/Tool/Hand=Hand Tool (H)"},
          ToolRow{"ZoomTool", "Project/Tool/Zoom", "$$$/Curvana/Tool/Zoom=Zoom Tool (Z)"}})
        tools.Add(std::make_unique<Velmo::CTool>(t.name, t.id, t.tip));
    Velmo::CLayoutLoader loader;
    loader.AddToolSet(tools);
    QWidget dialog;
    Velmo::CZelError error;
    ASSERT_TRUE(loader.LoadResource(DialogLayoutPath(), dialog, error)) << error.ToString();

    EXPECT_EQ(dialog.objectName(), "Project/Dialog");
    EXPECT_EQ(dialog.windowTitle(), "Curvana");
    EXPECT_EQ(dialog.property("velmoOffset").toPoint(), QPoint(-50, -33));
    // Every view id of the dialog is checked on the running dialog (DialogTest).
    const auto view = [&](const char* id) { return Velmo::FindView(dialog, std::string_view(id)); };
    EXPECT_EQ(static_cast<QLabel*>(view("Project/Dialog/Tooltip"))->text(),
              "Place mouse over control for help");
    EXPECT_EQ(view("Project/Dialog/Tooltip")->maximumHeight(), 18);
    auto* ok = static_cast<QPushButton*>(view("Project/Dialog/OKButton"));
    EXPECT_TRUE(ok->isDefault());
    EXPECT_EQ(ok->maximumWidth(), 160);
    EXPECT_TRUE(view("Project/Dialog/CancelButton")->property("velmoCancel").toBool());
    EXPECT_EQ(static_cast<QComboBox*>(view("Project/Dialog/ZoomCombo"))->count(), 18);
    EXPECT_EQ(static_cast<QComboBox*>(view("Project/Dialog/ProjectionModelPopup"))->itemText(3),
              "Full Spherical");
    EXPECT_EQ(static_cast<QToolButton*>(view("Project/Dialog/CorrectionFlyout"))
                  ->menu()
                  ->actions()
                  .size(),
              4);

    struct SliderRow {
        const char* id;
        double minimum, maximum;
        int positions, decimals;
        double minor, major;
    };
    for (const SliderRow& s :
         {SliderRow{"Project/Dialog/ImageScaleSlider", 50, 150, 201, 0, 1, 10},
          SliderRow{"Project/Dialog/FocalLengthSlider", 1, 1000, 201, 2, 0.1, 1},
          SliderRow{"Project/Dialog/CropFactorSlider", 0, 10, 201, 2, 0.1, 1}}) {
        const auto* slider = dynamic_cast<Velmo::CSlider*>(view(s.id));
        ASSERT_NE(slider, nullptr) << s.id;
        const Velmo::CSlider::Setup& setup = slider->Configuration();
        EXPECT_EQ(setup.minimum, s.minimum) << s.id;
        EXPECT_EQ(setup.maximum, s.maximum) << s.id;
        EXPECT_EQ(setup.positions, s.positions) << s.id;
        EXPECT_EQ(setup.decimals, s.decimals) << s.id;
        EXPECT_EQ(setup.minorStep, s.minor) << s.id;
        EXPECT_EQ(setup.majorStep, s.major) << s.id;
    }
    EXPECT_EQ(static_cast<Velmo::CSlider*>(view("Project/Dialog/ImageScaleSlider"))
                  ->Configuration()
                  .digits,
              6);

    auto* preview = dynamic_cast<Velmo::CImagePane*>(view("Project/Dialog/PreviewPane"));
    ASSERT_NE(preview, nullptr);
    EXPECT_EQ(preview->minimumSize(), QSize(320, 320));
    EXPECT_EQ(view("Project/Dialog/DetailedPreviewPane")->maximumHeight(), 200);
    EXPECT_TRUE(view("Project/Dialog/SolverInfoPane")->isHidden());
    EXPECT_EQ(view("Project/Dialog/CameraEXIFInfo")->maximumWidth(), 300);
    // Every named view keeps a distinct 32-bit code (settings tasks store it).
    std::set<Velmo::CViewId> codes;
    int named = 0;
    for (const QWidget* w : dialog.findChildren<QWidget*>()) {
        if (w->objectName().isEmpty() || w->objectName().startsWith("qt_"))
            continue;
        ++named;
        codes.insert(Velmo::ViewIdOf(w->objectName().toStdString()));
    }
    EXPECT_GE(named, 40);
    EXPECT_EQ(codes.size(), static_cast<size_t>(named));
    // The tips' letters are the tools' shortcuts.
    EXPECT_EQ(tools.Find("Project/Tool/PlaneTool")->Shortcut(), QChar('Y'));
}

}  // namespace
}  // namespace Project
