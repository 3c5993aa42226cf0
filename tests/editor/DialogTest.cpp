// The editor dialog as a user meets it: `curvana edit` on the demo's sample
// photograph, run in this process with the real module and editor object,
// the dialog worked through its widgets (tools/editordriver).
#include <gtest/gtest.h>

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRegularExpression>
#include <QSlider>
#include <QSpinBox>
#include <QToolButton>
#include <QtTest/QTest>
#include <cmath>
#include <fstream>
#include <iterator>

#include "../framework/QtTestApp.h"
#include "editordriver/EditorDriver.h"
#include "framework/CImagePane.h"
#include "framework/Widgets.h"
#include "host/Cli.h"
#include "host/HostTestUtil.h"
#include "session/PreferencesFile.h"

namespace Curvana::Host::Test {
namespace {

using namespace EditorDriver;

const fs::path kPhoto = CURVANA_SAMPLE_PHOTO;
const fs::path kConstraints = CURVANA_SAMPLE_CONSTRAINTS;
const fs::path kModule = CURVANA_MODULE;

constexpr const char* kFileMenu = "Project/Menu/File";
constexpr const char* kEditMenu = "Project/Menu/Edit";
constexpr const char* kLoad = "$$$/Curvana/FileMenu/LoadConstraints";
constexpr const char* kSave = "$$$/Curvana/FileMenu/SaveConstraints";
constexpr const char* kUndo = "$$$/Velmo/Tasks/Undo";

std::vector<uint8_t> bytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeBytes(const fs::path& file, const std::vector<uint8_t>& bytes) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

class Dialog : public ::testing::Test {
protected:
    void SetUp() override {
        ::test::QtApp();
        // Each test starts from the factory preferences and records its own action.
        setenv("XDG_CONFIG_HOME", (dir / "xdg").c_str(), 1);
    }

    int edit(const fs::path& output, const std::function<void(QWidget&)>& script) {
        return RunCurvana(
            {"edit", kPhoto.string(), "-o", output.string(), "--module", kModule.string(), "-q"},
            script);
    }

    // The label the Edit menu's Undo entry shows now.
    static QString undoLabel(QWidget& dialog) {
        QAction* undo = Command(dialog, kEditMenu, kUndo);
        if (!undo)
            return {};
        // The labels follow the stack when the menu opens.
        QMenu* menu = qobject_cast<QMenu*>(undo->parent());
        if (!menu)
            return {};
        Q_EMIT menu->aboutToShow();
        const QString label = undo->text();
        Q_EMIT menu->aboutToHide();
        return label;
    }

    static void undo(QWidget& dialog) { Command(dialog, kEditMenu, kUndo)->trigger(); }

    static void typeInto(Velmo::CSlider& slider, const QString& value) {
        QLineEdit* field = slider.Field();
        field->setFocus();
        field->selectAll();
        QTest::keyClicks(field, value);
        QTest::keyClick(field, Qt::Key_Return);
    }

    // Loads a constraint file through the File menu, answering the
    // questions that come; the text of the alert that followed, if any.
    static QString load(QWidget& dialog, const fs::path& file, bool replaceAsked = false) {
        ModalAnswers answers;
        if (replaceAsked)
            answers.Answer("Yes");
        answers.ChooseFile(file);
        QString alert;
        answers.Answer("OK", &alert);
        Command(dialog, kFileMenu, kLoad)->trigger();
        return alert;
    }

    static int drawnConstraints(QWidget& dialog) {
        QWidget* pane = View(dialog, "Project/Dialog/PreviewPane");
        pane->repaint();
        return pane->property("constraintsDrawn").toInt();
    }

    ScratchDir dir;
};

TEST_F(Dialog, OpensOnTheSamplePhotographWithEveryViewAndItsRanges) {
    bool checked = false;
    const int code = edit(dir / "out.jpg", [&](QWidget& dialog) {
        for (const char* tool : {"ManageConstraint", "PlaneTool", "MoveImage", "Hand", "Zoom"})
            EXPECT_NE(View(dialog, std::string("Project/Tool/") + tool), nullptr) << tool;
        const char* const views[] = {"Toolbar",
                                     "Tooltip",
                                     "PreviewScroller",
                                     "ZoomCombo",
                                     "PreviewPane",
                                     "CameraEXIFInfo",
                                     "LensEXIFInfo",
                                     "PreviewResultCheck",
                                     "ShowConstraintsCheck",
                                     "ShowMeshCheck",
                                     "OKButton",
                                     "CancelButton",
                                     "CorrectionOptionPane",
                                     "ProjectionModelPopup",
                                     "CorrectionFlyout",
                                     "ImageScaleSlider",
                                     "ImageScaleUnitText",
                                     "FocalLengthPane",
                                     "FocalLengthSlider",
                                     "CropFactorPane",
                                     "CropFactorSlider",
                                     "AsShotCheck",
                                     "LoupePane",
                                     "DetailedPreviewPane",
                                     "SolverInfoPane",
                                     "SolverFailureIcon",
                                     "SolverInfoText"};
        for (const char* view : views)
            EXPECT_NE(View(dialog, std::string("Project/Dialog/") + view), nullptr) << view;

        // The sliders' steps are the layout's (DialogLayoutTest); the focal
        // length's range is set around the photo's 15 mm (a quarter to four times).
        auto* focal = ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider");
        ASSERT_NE(focal, nullptr);
        EXPECT_EQ(focal->Configuration().minimum, 3);
        EXPECT_EQ(focal->Configuration().maximum, 60);
        EXPECT_EQ(focal->Configuration().positions, 201);
        EXPECT_EQ(focal->Configuration().decimals, 2);
        for (const auto& [id, value] : {std::pair{"Project/Dialog/ImageScaleSlider", 120.0},
                                        {"Project/Dialog/FocalLengthSlider", 15.0},
                                        {"Project/Dialog/CropFactorSlider", 1.0}})
            EXPECT_NEAR(ViewAs<Velmo::CSlider>(dialog, id)->Value(), value, 1e-6) << id;
        auto* pane = ViewAs<Velmo::CImagePane>(dialog, "Project/Dialog/PreviewPane");
        ASSERT_NE(pane, nullptr);
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
        EXPECT_EQ(undoLabel(dialog), "Cannot Undo");

        ASSERT_TRUE(WaitForPreview(dialog));
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
        return [id, value](QWidget& d) { typeInto(*ViewAs<Velmo::CSlider>(d, id), value); };
    };
    const Case cases[] = {
        {"scale", slider("Project/Dialog/ImageScaleSlider", "100"), true},
        {"focal length", slider("Project/Dialog/FocalLengthSlider", "20"), true},
        {"crop factor", slider("Project/Dialog/CropFactorSlider", "1.5"), true},
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
    edit(dir / "out.jpg", [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            const QImage before = GrabPreview(dialog);
            c.change(dialog);
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_GT(MeanDifference(before, GrabPreview(dialog)), 1.0);
            if (!c.task) {
                EXPECT_EQ(undoLabel(dialog), "Cannot Undo");
                c.change(dialog);  // back
                ASSERT_TRUE(WaitForPreview(dialog));
                continue;
            }
            EXPECT_EQ(undoLabel(dialog), "Undo UI Setting");
            undo(dialog);
            EXPECT_EQ(undoLabel(dialog), "Cannot Undo") << "exactly one step";
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_LT(MeanDifference(before, GrabPreview(dialog)), 0.5);
        }

        // As Shot brings back the photo's focal length in one step.
        typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider"), "24");
        auto* asShot = ViewAs<QCheckBox>(dialog, "Project/Dialog/AsShotCheck");
        EXPECT_FALSE(asShot->isChecked());
        asShot->click();
        EXPECT_TRUE(asShot->isChecked());
        EXPECT_NEAR(ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider")->Value(),
                    15.0, 1e-6);
        undo(dialog);
        EXPECT_NEAR(ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider")->Value(),
                    24.0, 1e-6);

        // Alt-click on Cancel resets to the opening state, as one step.
        auto* cancel = ViewAs<QPushButton>(dialog, "Project/Dialog/CancelButton");
        QTest::keyPress(&dialog, Qt::Key_Alt, Qt::AltModifier);
        EXPECT_EQ(cancel->text(), "Reset");
        QTest::mouseClick(cancel, Qt::LeftButton, Qt::AltModifier);
        QTest::keyRelease(&dialog, Qt::Key_Alt);
        EXPECT_TRUE(dialog.isVisible());
        EXPECT_NEAR(ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider")->Value(),
                    15.0, 1e-6);
        EXPECT_EQ(cancel->text(), "Cancel");
    });
}

TEST_F(Dialog, NavigatesWithTheViewMenuKeysAndTools) {
    edit(dir / "out.jpg", [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        auto* pane = ViewAs<Velmo::CImagePane>(dialog, "Project/Dialog/PreviewPane");
        ASSERT_NE(pane, nullptr);
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
        EXPECT_EQ(undoLabel(dialog), "Cannot Undo") << "viewing is no edit";

        // The Move tool (M) moves the content: one undoable step.
        ASSERT_TRUE(WaitForPreview(dialog));
        const QImage before = GrabPreview(dialog);
        QTest::keyClick(pane, Qt::Key_M);
        QTest::mousePress(pane, Qt::LeftButton, {}, QPoint(200, 150));
        QTest::mouseMove(pane, QPoint(260, 150));
        QTest::mouseRelease(pane, Qt::LeftButton, {}, QPoint(260, 150));
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_GT(MeanDifference(before, GrabPreview(dialog)), 1.0);
        EXPECT_EQ(undoLabel(dialog), "Undo UI Setting");
    });
}

// Loading checks the file against the photo: a file for another image or no
// constraint file at all is refused with its message and changes nothing;
// the sample's own file shows its lines and is one undoable step.
TEST_F(Dialog, LoadShowsTheFilesLinesOrRefusesAMismatchedFile) {
    std::vector<uint8_t> wrongSize = bytesOf(kConstraints);
    ASSERT_GT(wrongSize.size(), 20u);
    wrongSize[10] = static_cast<uint8_t>(2999 & 0xFF);  // width 2999 (u16 at byte 10)
    wrongSize[11] = static_cast<uint8_t>(2999 >> 8);
    writeBytes(dir / "wrong-size.cvc", wrongSize);
    writeBytes(dir / "not-constraints.cvc",
               {'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd'});

    edit(dir / "out.jpg", [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
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
            EXPECT_EQ(load(dialog, r.file).toStdString(), r.message);
            EXPECT_EQ(undoLabel(dialog), "Cannot Undo");
            EXPECT_EQ(drawnConstraints(dialog), 0);
            ASSERT_TRUE(WaitForPreview(dialog));
            EXPECT_LT(MeanDifference(bare, GrabPreview(dialog)), 0.5);
        }

        EXPECT_EQ(load(dialog, kConstraints), "") << "no alert";
        EXPECT_EQ(undoLabel(dialog), "Undo Load Constraints");
        ASSERT_TRUE(WaitForPreview(dialog));
        EXPECT_GE(drawnConstraints(dialog), 10);
        EXPECT_GT(MeanDifference(bare, GrabPreview(dialog)), 1.0);

        // Once there is something to lose, loading asks first; No keeps it.
        ModalAnswers answers;
        QString question;
        answers.Answer("No", &question);
        Command(dialog, kFileMenu, kLoad)->trigger();
        EXPECT_EQ(question.toStdString(),
                  "Loading constraints from a file will clear current data from your workspace. "
                  "Do you want to proceed?");
        EXPECT_EQ(answers.Pending(), 0u);
        EXPECT_EQ(undoLabel(dialog), "Undo Load Constraints");

        undo(dialog);
        EXPECT_EQ(drawnConstraints(dialog), 0);
    });
}

TEST_F(Dialog, SaveThenLoadRoundTripsTheWorkspaceByteForByte) {
    edit(dir / "out.jpg", [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        load(dialog, kConstraints);
        typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/ImageScaleSlider"), "110");
        const auto save = [&](const fs::path& file) {
            ModalAnswers answers;
            answers.ChooseFile(file);
            Command(dialog, kFileMenu, kSave)->trigger();
            EXPECT_EQ(answers.Pending(), 0u);
        };
        save(dir / "first.cvc");
        EXPECT_EQ(load(dialog, dir / "first.cvc", true), "");
        save(dir / "second.cvc");
        const std::vector<uint8_t> first = bytesOf(dir / "first.cvc");
        EXPECT_GT(first.size(), 100u);
        EXPECT_EQ(first, bytesOf(dir / "second.cvc"));
    });
}

// OK renders through the host exactly as apply does with the settings the
// dialog reports (the recorded action, which carries the constraints).
TEST_F(Dialog, OkWritesWhatApplyWritesWithTheSameSettingsAndConstraints) {
    const fs::path edited = dir / "edited.png", applied = dir / "applied.png";
    const int code = edit(edited, [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        load(dialog, kConstraints);
        typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/FocalLengthSlider"), "16");
        typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/ImageScaleSlider"), "105");
        QTest::mouseClick(ViewAs<QPushButton>(dialog, "Project/Dialog/OKButton"), Qt::LeftButton);
    });
    ASSERT_EQ(code, kExitOk);
    const fs::path action = dir / "xdg" / "curvana" / "last-action.json";
    ASSERT_TRUE(fs::exists(action));
    std::vector<std::string> args = {"curvana",        "apply",    kPhoto.string(), "-o",
                                     applied.string(), "--params", action.string(), "--module",
                                     kModule.string(), "-q"};
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    ASSERT_EQ(runCli(static_cast<int>(argv.size()), argv.data()), kExitOk);
    const Raster a = readWhole(edited), b = readWhole(applied);
    ASSERT_EQ(a.info.width, 3000);
    EXPECT_EQ(maxDifference(a, b), 0);
    // Not the photograph as it came: the correction was applied.
    EXPECT_GT(maxDifference(a, readWhole(kPhoto)), 50);
}

// Escape with changes asks whether to save them: Cancel returns to the
// dialog, Save is OK.
TEST_F(Dialog, EscapeAsksWhetherToSaveTheChanges) {
    QString asked;
    const int code = edit(dir / "out.png", [&](QWidget& dialog) {
        ASSERT_TRUE(WaitForPreview(dialog));
        typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/ImageScaleSlider"), "130");
        {
            ModalAnswers answers;
            answers.Answer("Cancel", &asked);
            QTest::keyClick(&dialog, Qt::Key_Escape);
            EXPECT_EQ(answers.Pending(), 0u);
        }
        EXPECT_TRUE(dialog.isVisible());
        ModalAnswers answers;
        answers.Answer("Save");
        QTest::keyClick(&dialog, Qt::Key_Escape);
    });
    EXPECT_EQ(asked.toStdString(),
              "Do you want to save the changes you made in the image?\n"
              "Your changes will be lost if you don't save them.");
    EXPECT_EQ(code, kExitOk);
    EXPECT_TRUE(fs::exists(dir / "out.png"));
}

// Cancel, and Escape answered with Don't Save, write nothing and record
// nothing.
TEST_F(Dialog, CancelWritesNothing) {
    const std::function<void(QWidget&)> ends[] = {
        [](QWidget& d) {
            QTest::mouseClick(ViewAs<QPushButton>(d, "Project/Dialog/CancelButton"),
                              Qt::LeftButton);
        },
        [](QWidget& d) {
            ModalAnswers answers;
            answers.Answer("DontSave");
            QTest::keyClick(&d, Qt::Key_Escape);
        },
    };
    for (const auto& end : ends) {
        const fs::path out = dir / "out.png";
        const int code = edit(out, [&](QWidget& dialog) {
            ASSERT_TRUE(WaitForPreview(dialog));
            typeInto(*ViewAs<Velmo::CSlider>(dialog, "Project/Dialog/ImageScaleSlider"), "90");
            end(dialog);
            EXPECT_FALSE(dialog.isVisible());
        });
        EXPECT_EQ(code, kExitFailed);
        EXPECT_FALSE(fs::exists(out));
        EXPECT_FALSE(fs::exists(dir / "xdg" / "curvana" / "last-action.json"));
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
    edit(dir / "out.jpg", [&](QWidget& dialog) {
        preferences(dialog, [](QWidget& prefs) {
            prefs.findChild<QSpinBox*>("Project/Preferences/LoupeSize")->setValue(250);
            prefs.findChild<QCheckBox*>("Project/Preferences/LoupeWhileDragging")
                ->setChecked(false);
        });
        EXPECT_EQ(undoLabel(dialog), "Undo UI Setting");
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
