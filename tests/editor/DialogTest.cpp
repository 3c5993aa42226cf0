// The editor dialog as a user meets it: `curvana edit` on the demo's sample
// photograph, run in this process with the real module and editor object,
// the dialog worked through its widgets (tools/editordriver).
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QToolButton>

#include "DialogFixture.h"
#include "session/PreferencesFile.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;
using Dialog = DialogFixture;

TEST_F(Dialog, OpensOnTheSamplePhotographWithEveryViewAndItsRanges) {
    bool checked = false;
    const int code = Edit([&](QWidget& dialog) {
        for (const QString& tool :
             QString("ManageConstraint PlaneTool MoveImage Hand Zoom").split(' '))
            EXPECT_NE(View(dialog, ("Project/Tool/" + tool).toStdString()), nullptr)
                << tool.toStdString();
        for (const QString& view :
             QString("Toolbar Tooltip PreviewScroller ZoomCombo PreviewPane CameraEXIFInfo "
                     "LensEXIFInfo PreviewResultCheck ShowConstraintsCheck ShowMeshCheck OKButton "
                     "CancelButton CorrectionOptionPane ProjectionModelPopup CorrectionFlyout "
                     "ImageScaleSlider ImageScaleUnitText FocalLengthPane FocalLengthSlider "
                     "CropFactorPane CropFactorSlider AsShotCheck LoupePane DetailedPreviewPane "
                     "SolverInfoPane SolverFailureIcon SolverInfoText")
                 .split(' '))
            EXPECT_NE(View(dialog, ("Project/Dialog/" + view).toStdString()), nullptr)
                << view.toStdString();

        // The sliders' steps are the layout's (DialogLayoutTest); the focal
        // length's range is set around the photo's 15 mm (a quarter to four times).
        Velmo::CSlider& focal = Slider(dialog, "FocalLengthSlider");
        EXPECT_EQ(focal.Configuration().minimum, 3);
        EXPECT_EQ(focal.Configuration().maximum, 60);
        EXPECT_EQ(focal.Configuration().positions, 201);
        EXPECT_EQ(focal.Configuration().decimals, 2);
        for (const auto& [name, value] : {std::pair{"ImageScaleSlider", 120.0},
                                          {"FocalLengthSlider", 15.0},
                                          {"CropFactorSlider", 1.0}})
            EXPECT_NEAR(Slider(dialog, name).Value(), value, 1e-6) << name;
        EXPECT_EQ(pane->MinimumZoom(), 0.001);
        EXPECT_EQ(pane->MaximumZoom(), 16.0);
        EXPECT_EQ(pane->Cushion(), 3);

        // The fresh invocation: the projection from the 15 mm focal length
        // (a fisheye), As Shot, the metadata and the zoom in the title.
        auto* popup = ViewAs<QComboBox>(dialog, "Project/Dialog/ProjectionModelPopup");
        ASSERT_EQ(popup->count(), 4);
        EXPECT_EQ(popup->itemText(2), "Auto");
        EXPECT_EQ(popup->currentText(), "Fisheye");
        EXPECT_TRUE(ViewAs<QCheckBox>(dialog, "Project/Dialog/AsShotCheck")->isChecked());
        EXPECT_EQ(ViewAs<QLabel>(dialog, "Project/Dialog/CameraEXIFInfo")->text(),
                  "Camera Model: Sample Room Camera (Curvana)");
        EXPECT_TRUE(QRegularExpression(R"(^Curvana \(sample-room\.jpg @ [0-9.]+%\)$)")
                        .match(dialog.windowTitle())
                        .hasMatch())
            << dialog.windowTitle().toStdString();
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
        const QImage shown = GrabPreview(dialog);
        EXPECT_GT(MeanDifference(shown, QImage(shown.size(), QImage::Format_RGB32)), 20.0)
            << "the preview shows the photograph";
        EXPECT_TRUE(View(dialog, "Project/Dialog/SolverInfoPane")->isHidden());
        checked = true;
    });
    EXPECT_TRUE(checked);
    EXPECT_EQ(code, kExitFailed);  // closed without OK
}

// Every setting control pushes exactly one undoable step and changes the
// preview, and undoing it brings both back; the view check boxes change the
// picture shown without an undo step.
TEST_F(Dialog, EachControlPushesOneUndoableStepAndChangesThePreview) {
    struct Case {
        const char* name;
        std::function<void(QWidget&)> change;
        bool task;
    };
    const auto slider = [](const char* id, const char* value) {
        return [id, value](QWidget& d) { TypeInto(d, id, value); };
    };
    const Case cases[] = {
        {"scale", slider("ImageScaleSlider", "100"), true},
        {"focal length", slider("FocalLengthSlider", "20"), true},
        {"crop factor", slider("CropFactorSlider", "1.5"), true},
        {"projection",
         [](QWidget& d) {
             QTest::keyClick(ViewAs<QComboBox>(d, "Project/Dialog/ProjectionModelPopup"),
                             Qt::Key_Down);
         },
         true},
        {"preview",
         [](QWidget& d) { ViewAs<QCheckBox>(d, "Project/Dialog/PreviewResultCheck")->click(); },
         false},
        {"mesh", [](QWidget& d) { ViewAs<QCheckBox>(d, "Project/Dialog/ShowMeshCheck")->click(); },
         false},
    };
    Edit([&](QWidget& dialog) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            const QImage before = GrabPreview(dialog);
            c.change(dialog);
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_GT(MeanDifference(before, GrabPreview(dialog)), 1.0);
            if (!c.task) {
                EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
                c.change(dialog);  // back
                ASSERT_TRUE(WaitForPreview(dialog));
                continue;
            }
            EXPECT_EQ(UndoLabel(dialog), "Undo UI Setting");
            Undo(dialog);
            EXPECT_EQ(UndoLabel(dialog), "Cannot Undo") << "exactly one step";
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_LT(MeanDifference(before, GrabPreview(dialog)), 0.5);
        }

        // As Shot brings back the photo's focal length in one step.
        TypeInto(dialog, "FocalLengthSlider", "24");
        auto* asShot = ViewAs<QCheckBox>(dialog, "Project/Dialog/AsShotCheck");
        EXPECT_FALSE(asShot->isChecked());
        asShot->click();
        EXPECT_TRUE(asShot->isChecked());
        EXPECT_NEAR(Slider(dialog, "FocalLengthSlider").Value(), 15.0, 1e-6);
        Undo(dialog);
        EXPECT_NEAR(Slider(dialog, "FocalLengthSlider").Value(), 24.0, 1e-6);

        // Alt-click on Cancel resets to the opening state, as one step.
        auto* cancel = ViewAs<QPushButton>(dialog, "Project/Dialog/CancelButton");
        QTest::keyPress(&dialog, Qt::Key_Alt, Qt::AltModifier);
        EXPECT_EQ(cancel->text(), "Reset");
        QTest::mouseClick(cancel, Qt::LeftButton, Qt::AltModifier);
        QTest::keyRelease(&dialog, Qt::Key_Alt);
        EXPECT_TRUE(dialog.isVisible());
        EXPECT_NEAR(Slider(dialog, "FocalLengthSlider").Value(), 15.0, 1e-6);
        EXPECT_EQ(cancel->text(), "Cancel");
    });
}

TEST_F(Dialog, NavigatesWithTheViewMenuKeysAndTools) {
    Edit([&](QWidget& dialog) {
        pane->setFocus();
        QTest::keyClick(pane, Qt::Key_1, Qt::ControlModifier);
        EXPECT_DOUBLE_EQ(pane->Zoom(), 1.0);
        EXPECT_TRUE(dialog.windowTitle().endsWith("@ 100%)")) << dialog.windowTitle().toStdString();
        QTest::keyClick(pane, Qt::Key_Minus, Qt::ControlModifier);
        EXPECT_NEAR(pane->Zoom(), 2.0 / 3.0, 1e-9);
        QTest::keyClick(pane, Qt::Key_0, Qt::ControlModifier | Qt::AltModifier);
        const double fitted = pane->Zoom();
        EXPECT_LT(fitted, 0.5);

        // Z, then a click zooms in by two about it; the Hand (H) drags the view.
        QTest::keyClick(pane, Qt::Key_Z);
        QTest::mouseClick(pane, Qt::LeftButton, {}, QPoint(200, 150));
        EXPECT_NEAR(pane->Zoom(), 2 * fitted, 1e-9);
        // C selects the Constraint tool, Z the Zoom tool again.
        QTest::keyClick(pane, Qt::Key_C);
        EXPECT_TRUE(ViewAs<QToolButton>(dialog, "Project/Tool/ManageConstraint")->isChecked());
        QTest::keyClick(pane, Qt::Key_Z);
        QTest::mouseClick(pane, Qt::LeftButton, {}, QPoint(200, 150));
        EXPECT_NEAR(pane->Zoom(), 4 * fitted, 1e-9);
        QTest::keyClick(pane, Qt::Key_H);
        const QPointF origin = pane->Origin();
        QTest::mousePress(pane, Qt::LeftButton, {}, QPoint(200, 150));
        QTest::mouseMove(pane, QPoint(230, 170));
        QTest::mouseRelease(pane, Qt::LeftButton, {}, QPoint(230, 170));
        EXPECT_EQ(pane->Origin() - origin, QPointF(30, 20));
        EXPECT_EQ(UndoLabel(dialog), "Cannot Undo") << "viewing is no edit";

        // The Move tool (M) moves the content: one undoable step.
        ASSERT_TRUE(WaitForPreview(dialog));
        const QImage before = GrabPreview(dialog);
        QTest::keyClick(pane, Qt::Key_M);
        QTest::mousePress(pane, Qt::LeftButton, {}, QPoint(200, 150));
        QTest::mouseMove(pane, QPoint(260, 150));
        QTest::mouseRelease(pane, Qt::LeftButton, {}, QPoint(260, 150));
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_GT(MeanDifference(before, GrabPreview(dialog)), 1.0);
        EXPECT_EQ(UndoLabel(dialog), "Undo UI Setting");
    });
}

// Loading checks the file against the photo: a file for another image or no
// constraint file at all is refused with its message and changes nothing;
// the sample's own file shows its lines and is one undoable step.
TEST_F(Dialog, LoadShowsTheFilesLinesOrRefusesAMismatchedFile) {
    std::vector<uint8_t> wrongSize = readBytes(kConstraints);
    ASSERT_GT(wrongSize.size(), 20u);
    wrongSize[10] = static_cast<uint8_t>(2999 & 0xFF);  // width 2999 (u16 at byte 10)
    wrongSize[11] = static_cast<uint8_t>(2999 >> 8);
    writeBytes(dir / "wrong-size.cvc", wrongSize);
    std::ofstream(dir / "not-constraints.cvc") << "hello world";

    Edit([&](QWidget& dialog) {
        const QImage bare = GrabPreview(dialog);
        struct Refused {
            fs::path file;
            const char* message;
        };
        for (const Refused& r :
             {Refused{dir / "wrong-size.cvc",
                      "Image size doesn't match.\nValue in the loaded file: 2999x2000\n"
                      "Value of the current image: 3000x2000"},
              Refused{dir / "not-constraints.cvc", "Not a valid constraint file."}}) {
            SCOPED_TRACE(r.file.filename().string());
            EXPECT_EQ(LoadConstraints(dialog, r.file).toStdString(), r.message);
            EXPECT_EQ(UndoLabel(dialog), "Cannot Undo");
            EXPECT_EQ(Drawn(), 0);
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_LT(MeanDifference(bare, GrabPreview(dialog)), 0.5);
        }

        EXPECT_EQ(LoadConstraints(dialog, kConstraints), "") << "no alert";
        EXPECT_EQ(UndoLabel(dialog), "Undo Load Constraints");
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_GE(Drawn(), 10);
        EXPECT_GT(MeanDifference(bare, GrabPreview(dialog)), 1.0);

        // Once there is something to lose, loading asks first; No keeps it.
        ModalAnswers answers;
        QString question;
        answers.Answer("No", &question);
        Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/LoadConstraints")->trigger();
        EXPECT_EQ(question.toStdString(),
                  "Loading constraints from a file will clear current data from your workspace. "
                  "Do you want to proceed?");
        EXPECT_EQ(answers.Pending(), 0u);
        EXPECT_EQ(UndoLabel(dialog), "Undo Load Constraints");

        Undo(dialog);
        EXPECT_EQ(Drawn(), 0);
    });
}

// Saved and loaded again, the workspace saves to the same bytes. OK renders
// through the host exactly as apply does with the settings the dialog
// reports (the recorded action, which carries the constraints).
TEST_F(Dialog, SaveLoadRoundTripsAndOkWritesWhatApplyWrites) {
    const fs::path edited = dir / "edited.png", applied = dir / "applied.png";
    const int code = Edit(
        [&](QWidget& dialog) {
            LoadConstraints(dialog, kConstraints);
            TypeInto(dialog, "FocalLengthSlider", "16");
            TypeInto(dialog, "ImageScaleSlider", "105");
            SaveConstraints(dialog, dir / "first.cvc");
            EXPECT_EQ(LoadConstraints(dialog, dir / "first.cvc", true), "");
            SaveConstraints(dialog, dir / "second.cvc");
            const std::vector<uint8_t> first = readBytes(dir / "first.cvc");
            EXPECT_GT(first.size(), 100u);
            EXPECT_EQ(first, readBytes(dir / "second.cvc"));
            QTest::mouseClick(ViewAs<QPushButton>(dialog, "Project/Dialog/OKButton"),
                              Qt::LeftButton);
        },
        edited);
    ASSERT_EQ(code, kExitOk);
    const fs::path action = dir / "xdg" / "curvana" / "last-action.json";
    ASSERT_TRUE(fs::exists(action));
    ASSERT_EQ(runCliOn({"curvana", "apply", kPhoto.string(), "-o", applied.string(), "--params",
                        action.string(), "--module", kModule.string(), "-q"}),
              kExitOk);
    const Raster a = readWhole(edited), b = readWhole(applied);
    ASSERT_EQ(a.info.width, 3000);
    EXPECT_EQ(maxDifference(a, b), 0);
    // Not the photograph as it came: the correction was applied.
    EXPECT_GT(maxDifference(a, readWhole(kPhoto)), 50);
}

// Escape with changes asks whether to save them: Cancel returns to the
// dialog, Save is OK, Don't Save is the Cancel button: nothing written or
// recorded.
TEST_F(Dialog, ClosingWithChangesWritesOnlyWhenSaved) {
    struct Case {
        const char* name;
        std::function<void(QWidget&)> end;
        bool saved;
    };
    const auto escape = [](const char* answer) {
        return [answer](QWidget& d) {
            ModalAnswers answers;
            answers.Answer(answer);
            QTest::keyClick(&d, Qt::Key_Escape);
        };
    };
    const auto cancel = [](QWidget& d) {
        QTest::mouseClick(ViewAs<QPushButton>(d, "Project/Dialog/CancelButton"), Qt::LeftButton);
    };
    for (const Case& c :
         {Case{"cancel", cancel, false}, Case{"dont-save", escape("DontSave"), false},
          Case{"save", escape("Save"), true}}) {
        SCOPED_TRACE(c.name);
        const fs::path out = dir / (std::string(c.name) + ".png");
        const int code = Edit(
            [&](QWidget& dialog) {
                TypeInto(dialog, "ImageScaleSlider", "90");
                ModalAnswers answers;
                QString asked;
                answers.Answer("Cancel", &asked);
                QTest::keyClick(&dialog, Qt::Key_Escape);
                EXPECT_EQ(answers.Pending(), 0u);
                EXPECT_EQ(asked.toStdString(),
                          "Do you want to save the changes you made in the image?\n"
                          "Your changes will be lost if you don't save them.");
                EXPECT_TRUE(dialog.isVisible());
                c.end(dialog);
                EXPECT_FALSE(dialog.isVisible());
            },
            out);
        EXPECT_EQ(code, c.saved ? kExitOk : kExitFailed);
        EXPECT_EQ(fs::exists(out), c.saved);
        EXPECT_EQ(fs::exists(dir / "xdg" / "curvana" / "last-action.json"), c.saved);
    }
}

// The preferences dialog edits the display preferences as one undoable step
// and keeps them in the preferences file at once; Restore Factory Settings
// brings every field back.
TEST_F(Dialog, PreferencesAreOneUndoableStepAndSavedAtOnce) {
    const auto preferences = [](QWidget& dialog, const std::function<void(QWidget&)>& edit) {
        ModalAnswers answers;
        answers.Expect("QDialog", [&edit](QWidget& prefs) {
            edit(prefs);
            static_cast<QDialog&>(prefs).accept();
            return true;
        });
        Command(dialog, "Project/Dialog/CorrectionFlyout", "$$$/Curvana/CorrectionMenu/Preferences")
            ->trigger();
        EXPECT_EQ(answers.Pending(), 0u);
    };
    const fs::path file = Project::PreferencesFolder(dir / "xdg") / Project::PreferencesFileName();
    Edit([&](QWidget& dialog) {
        preferences(dialog, [](QWidget& prefs) {
            prefs.findChild<QSpinBox*>("Project/Preferences/LoupeSize")->setValue(250);
            prefs.findChild<QCheckBox*>("Project/Preferences/LoupeWhileDragging")
                ->setChecked(false);
        });
        EXPECT_EQ(UndoLabel(dialog), "Undo UI Setting");
        Project::PPreferences saved;
        ASSERT_TRUE(Project::LoadPreferencesFile(file, saved));
        EXPECT_EQ(saved.settings.loupeSize, 250);
        EXPECT_EQ(saved.settings.showLoupeWhenDragging, 0);

        preferences(dialog, [](QWidget& prefs) {
            EXPECT_EQ(prefs.findChild<QSpinBox*>("Project/Preferences/LoupeSize")->value(), 250);
            prefs.findChild<QPushButton*>("Project/Preferences/RestoreFactory")->click();
            EXPECT_EQ(prefs.findChild<QSpinBox*>("Project/Preferences/LoupeSize")->value(), 140);
        });
        ASSERT_TRUE(Project::LoadPreferencesFile(file, saved));
        EXPECT_EQ(saved.settings.loupeSize, 140);
        EXPECT_EQ(saved.settings.showLoupeWhenDragging, 1);
    });
}

}  // namespace
}  // namespace Curvana::Host::Test
