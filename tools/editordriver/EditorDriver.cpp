#include "editordriver/EditorDriver.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPointer>
#include <QTimer>
#include <QToolButton>
#include <QtTest/QTest>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "Cli.h"

namespace Curvana::EditorDriver {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDialogName = "Project/Dialog";
constexpr const char* kPreviewPaneName = "Project/Dialog/PreviewPane";

QString QStr(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QAction* FindIn(const QMenu& menu, std::string_view command) {
    const QString name = QStr(command);
    for (QAction* action : menu.actions())
        if (action->objectName() == name)
            return action;
    return nullptr;
}

}  // namespace

int RunCurvana(const std::vector<std::string>& args, const std::function<void(QWidget&)>& script) {
    std::vector<std::string> line = {"curvana"};
    line.insert(line.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : line)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    bool ran = false;
    QTimer poll;
    poll.setInterval(20);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (ran)
            return;
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() != QLatin1String(kDialogName) || !widget->isVisible())
                continue;
            ran = true;
            poll.stop();
            QPointer<QWidget> dialog(widget);
            script(*widget);
            if (auto* still = qobject_cast<QDialog*>(dialog.data()); still && still->isVisible())
                still->done(QDialog::Rejected);
            return;
        }
    });
    poll.start();
    return Host::runCli(static_cast<int>(line.size()), argv.data());
}

QWidget* View(QWidget& dialog, std::string_view id) {
    const QString name = QStr(id);
    if (dialog.objectName() == name)
        return &dialog;
    return dialog.findChild<QWidget*>(name);
}

QAction* Command(QWidget& dialog, std::string_view menuId, std::string_view command) {
    if (menuId == "Project/Dialog/CorrectionFlyout") {
        auto* flyout = ViewAs<QToolButton>(dialog, menuId);
        return flyout && flyout->menu() ? FindIn(*flyout->menu(), command) : nullptr;
    }
    // The menu bar's menus (the Edit menu is not a child widget of the bar).
    for (const QMenuBar* bar : dialog.findChildren<QMenuBar*>())
        for (QAction* entry : bar->actions())
            if (const QMenu* menu = entry->menu(); menu && menu->objectName() == QStr(menuId))
                return FindIn(*menu, command);
    return nullptr;
}

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs) {
    // Sleeps until an event comes (the preview's results are posted events),
    // so the wait ends within a millisecond of the condition becoming true;
    // a timer wakes it now and then to see the deadline.
    QElapsedTimer clock;
    clock.start();
    QTimer tick;
    tick.start(50);
    QEventLoop loop;
    while (!condition()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        loop.processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

bool WaitForPreview(QWidget& dialog, int timeoutMs) {
    QWidget* pane = View(dialog, kPreviewPaneName);
    if (!pane)
        return false;
    return WaitUntil([pane] { return pane->property("previewCurrent").toBool(); }, timeoutMs);
}

QImage GrabPreview(QWidget& dialog) {
    QWidget* pane = View(dialog, kPreviewPaneName);
    return pane ? pane->grab().toImage().convertToFormat(QImage::Format_RGB32) : QImage();
}

std::optional<QPointF> FindCursor(QWidget& pane, QPointF guess, const QPixmap& cursor, int radius) {
    const QImage wanted = cursor.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
    for (int r = 0; r <= radius; ++r)
        for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx) {
                if (std::max(std::abs(dx), std::abs(dy)) != r)
                    continue;
                const QPointF at = guess + QPointF(dx, dy);
                QMouseEvent move(QEvent::MouseMove, at, pane.mapToGlobal(at), Qt::NoButton,
                                 Qt::NoButton, {});
                QApplication::sendEvent(&pane, &move);
                if (pane.cursor().pixmap().toImage().convertToFormat(
                        QImage::Format_ARGB32_Premultiplied) == wanted)
                    return at;
            }
    return std::nullopt;
}

double MeanDifference(const QImage& a, const QImage& b) {
    if (a.size() != b.size() || a.isNull())
        return 255.0;
    const QImage x = a.convertToFormat(QImage::Format_RGB32);
    const QImage y = b.convertToFormat(QImage::Format_RGB32);
    double sum = 0.0;
    for (int row = 0; row < x.height(); ++row) {
        const auto* p = reinterpret_cast<const QRgb*>(x.constScanLine(row));
        const auto* q = reinterpret_cast<const QRgb*>(y.constScanLine(row));
        for (int col = 0; col < x.width(); ++col)
            sum += std::abs(qRed(p[col]) - qRed(q[col])) +
                   std::abs(qGreen(p[col]) - qGreen(q[col])) +
                   std::abs(qBlue(p[col]) - qBlue(q[col]));
    }
    return sum / (3.0 * x.width() * x.height());
}

// ------------------------------------------------------------------ ModalAnswers

ModalAnswers::ModalAnswers() : timer_(new QTimer) {
    timer_->setInterval(20);
    QObject::connect(timer_, &QTimer::timeout, [this] { Poll(); });
    timer_->start();
}

ModalAnswers::~ModalAnswers() {
    delete timer_;
}

void ModalAnswers::Expect(const char* className, ModalAnswers::Reply reply) {
    expected_.push_back({className, std::move(reply)});
}

void ModalAnswers::ChooseFile(const std::filesystem::path& file) {
    const fs::path absolute = fs::absolute(file);
    const QString folder = QString::fromStdString(absolute.parent_path().string());
    const QString name = QString::fromStdString(absolute.filename().string());
    auto attempts = std::make_shared<int>(0);
    Expect("QFileDialog", [folder, name, attempts](QWidget& modal) {
        auto* chooser = static_cast<QFileDialog*>(&modal);
        // As a user types it: the name into the chooser's name field (its
        // own selectFile leaves the field alone while it has the focus),
        // taken relative to the chooser's folder.
        chooser->setDirectory(folder);
        if (auto* field = chooser->findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
            field->setText(name);
        else
            chooser->selectFile(name);
        static_cast<QDialog*>(chooser)->accept();
        if (chooser->isVisible() && ++*attempts > 250) {
            chooser->reject();  // it never took the name: give up, do not hang
            return true;
        }
        return !chooser->isVisible();
    });
}

void ModalAnswers::Answer(const QString& button, QString* text) {
    Expect("QMessageBox", [button, text](QWidget& modal) {
        auto* box = static_cast<QMessageBox*>(&modal);
        if (text) {
            *text = box->text();
            if (!box->informativeText().isEmpty())
                *text += QLatin1Char('\n') + box->informativeText();
        }
        for (QAbstractButton* b : box->buttons()) {
            if (b->objectName() == button || b->text().remove(QLatin1Char('&')) == button) {
                b->click();
                return true;
            }
        }
        box->reject();
        return true;
    });
}

void ModalAnswers::Poll() {
    // An answer may open a window of its own (a step inside a step): the
    // poll goes on while an answer runs.
    if (expected_.empty())
        return;
    QWidget* modal = QApplication::activeModalWidget();
    if (!modal || !modal->isVisible() || !modal->inherits(expected_.front().className))
        return;
    Expected next = std::move(expected_.front());
    expected_.pop_front();
    if (!next.reply(*modal))
        expected_.push_front(std::move(next));
}

}  // namespace Curvana::EditorDriver
