// Drives the editor dialog of a `curvana edit` run inside this process: the
// host program, the filter module and the editor object all load here, and a
// script works the dialog through its widgets as a user would (the tests,
// the editor benchmark and the README's screenshot use it). Needs a
// QApplication (QT_QPA_PLATFORM=offscreen runs it without a display).
#pragma once

#include <QImage>
#include <QPixmap>
#include <QPointF>
#include <QString>
#include <QWidget>
#include <deque>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QAction;
class QTimer;

namespace Curvana::EditorDriver {

// Runs `curvana <args>` in this process. Once the editor dialog shows,
// `script` runs inside its event loop with the dialog; when the script
// returns and the dialog is still open, it is closed like Cancel, so a
// failed check cannot leave it waiting. Returns the program's exit code.
int RunCurvana(const std::vector<std::string>& args, const std::function<void(QWidget&)>& script);

// The view of the dialog with this view id (null when none), as T.
QWidget* View(QWidget& dialog, std::string_view id);
template <class T>
T* ViewAs(QWidget& dialog, std::string_view id) {
    return dynamic_cast<T*>(View(dialog, id));
}

// The action of a menu of the dialog's menu bar, or of the correction
// flyout, by its command (the key path of its text, e.g.
// "$$$/Curvana/FileMenu/LoadConstraints"); null when none.
QAction* Command(QWidget& dialog, std::string_view menuId, std::string_view command);

// Runs the event loop until `condition` holds; false after `timeoutMs`.
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs);
// Waits until the preview pane shows the image of the newest request drawn
// with its own warp. False after `timeoutMs`.
bool WaitForPreview(QWidget& dialog, int timeoutMs = 60000);
// The preview pane as it is drawn now.
QImage GrabPreview(QWidget& dialog);
// Mean absolute difference of two images of the same size per channel value
// (0 ... 255); 255 for different sizes.
double MeanDifference(const QImage& a, const QImage& b);
// Where the pane offers `cursor` when the pointer hovers near `guess`
// (searched outwards pixel by pixel, up to `radius` away): for example where
// a drawn line's end is, by the cursor that offers to move it.
std::optional<QPointF> FindCursor(QWidget& pane, QPointF guess, const QPixmap& cursor,
                                  int radius = 12);

// The modal windows a step will open, answered in order as they appear:
// queue the answers, then take the step (which returns once they closed).
class ModalAnswers {
public:
    // Answers a window; false when the window is still open and the answer is
    // to be tried again (a file chooser still reading its folder).
    using Reply = std::function<bool(QWidget& modal)>;
    ModalAnswers();
    ~ModalAnswers();
    ModalAnswers(const ModalAnswers&) = delete;
    ModalAnswers& operator=(const ModalAnswers&) = delete;

    // Answers the next modal window of class `className` (a Qt class name,
    // e.g. "QMessageBox").
    void Expect(const char* className, Reply reply);
    // Chooses `file` in the next file chooser.
    void ChooseFile(const std::filesystem::path& file);
    // Clicks the button named `button` ("Yes", "No", or a button's object
    // name) of the next message box and keeps its text (main, then the
    // informative text on the next line).
    void Answer(const QString& button, QString* text = nullptr);
    // Expected windows that never came.
    size_t Pending() const { return expected_.size(); }

private:
    void Poll();

    struct Expected {
        const char* className;
        Reply reply;
    };
    std::deque<Expected> expected_;
    QTimer* timer_;
};

}  // namespace Curvana::EditorDriver
