// `curvana edit` on the demo's sample photograph, run in the test's process
// with the real module and editor object, and the steps the dialog tests
// take through its menus and fields.
#pragma once

#include <gtest/gtest.h>

#include <QAction>
#include <QLineEdit>
#include <QMenu>
#include <QtTest/QTest>
#include <stdexcept>

#include "../framework/QtTestApp.h"
#include "editordriver/EditorDriver.h"
#include "framework/CImagePane.h"
#include "framework/Widgets.h"
#include "host/HostTestUtil.h"

namespace Curvana::Host::Test {

inline const fs::path kPhoto = CURVANA_SAMPLE_PHOTO;
inline const fs::path kConstraints = CURVANA_SAMPLE_CONSTRAINTS;
inline const fs::path kModule = CURVANA_MODULE;

class DialogFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ::test::QtApp();
        // Each test starts from the factory preferences and records its own action.
        setenv("XDG_CONFIG_HOME", (dir / "xdg").c_str(), 1);
    }

    // Runs `script` in the dialog on `photo` once its preview is shown,
    // writing `output` on OK; `pane` is the preview pane. The exit code of
    // `curvana edit`.
    int Edit(const std::function<void(QWidget&)>& script, const fs::path& output = {},
             const fs::path& photo = kPhoto) {
        const fs::path out = output.empty() ? dir / "out.png" : output;
        return EditorDriver::RunCurvana(
            {"edit", photo.string(), "-o", out.string(), "--module", kModule.string(), "-q"},
            [&](QWidget& dialog) {
                dialog.resize(1280, 820);
                pane =
                    EditorDriver::ViewAs<Velmo::CImagePane>(dialog, "Project/Dialog/PreviewPane");
                ASSERT_NE(pane, nullptr);
                ASSERT_TRUE(EditorDriver::WaitForPreview(dialog));
                script(dialog);
            });
    }

    // The label the Edit menu's Undo entry shows now (the labels follow the
    // stack when the menu opens).
    static QString UndoLabel(QWidget& dialog) {
        QAction* undo = EditorDriver::Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo");
        auto* menu = qobject_cast<QMenu*>(undo->parent());
        Q_EMIT menu->aboutToShow();
        const QString label = undo->text();
        Q_EMIT menu->aboutToHide();
        return label;
    }
    static void Undo(QWidget& dialog) {
        EditorDriver::Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Undo")->trigger();
    }
    static void Redo(QWidget& dialog) {
        EditorDriver::Command(dialog, "Project/Menu/Edit", "$$$/Velmo/Tasks/Redo")->trigger();
    }

    // A missing slider fails the test (the exception is reported), not the run.
    static Velmo::CSlider& Slider(QWidget& dialog, const char* name) {
        auto* slider =
            EditorDriver::ViewAs<Velmo::CSlider>(dialog, std::string("Project/Dialog/") + name);
        if (slider == nullptr)
            throw std::runtime_error(std::string("the dialog has no slider ") + name);
        return *slider;
    }
    // Types `value` into a slider's field.
    static void TypeInto(QWidget& dialog, const char* name, const QString& value) {
        QLineEdit* field = Slider(dialog, name).Field();
        field->setFocus();
        field->selectAll();
        QTest::keyClicks(field, value);
        QTest::keyClick(field, Qt::Key_Return);
    }

    // Saves the constraints to `file` through the File menu.
    static void SaveConstraints(QWidget& dialog, const fs::path& file) {
        EditorDriver::ModalAnswers answers;
        answers.ChooseFile(file);
        EditorDriver::Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/SaveConstraints")
            ->trigger();
        EXPECT_EQ(answers.Pending(), 0u);
    }
    // Loads a constraint file through the File menu, answering the
    // questions that come; the text of the alert that followed, if any.
    static QString LoadConstraints(QWidget& dialog, const fs::path& file,
                                   bool replaceAsked = false) {
        EditorDriver::ModalAnswers answers;
        if (replaceAsked)
            answers.Answer("Yes");
        answers.ChooseFile(file);
        QString alert;
        answers.Answer("OK", &alert);
        EditorDriver::Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/LoadConstraints")
            ->trigger();
        return alert;
    }

    // The constraints the pane draws (or, asked, those of them selected).
    int Drawn(const char* which = "constraintsDrawn") const {
        pane->repaint();
        return pane->property(which).toInt();
    }

    ScratchDir dir;
    Velmo::CImagePane* pane = nullptr;
};

}  // namespace Curvana::Host::Test
