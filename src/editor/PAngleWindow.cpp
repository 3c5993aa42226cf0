#include "editor/PAngleWindow.h"

namespace Project {

PAngleWindow::PAngleWindow(QWidget* parent) : QLabel(parent) {
    setObjectName(QStringLiteral("Project/Dialog/AngleWindow"));
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    setAutoFillBackground(true);
    setMargin(3);
    setStyleSheet(
        QStringLiteral("background: #fffbe0; color: #202020; border: 1px solid #606060;"));
    hide();
}

void PAngleWindow::ShowAngle(double degrees, QPoint globalPointer) {
    setText(QString::number(degrees, 'f', 1) + QChar(0x00B0));
    adjustSize();
    const QPoint at = parentWidget() ? parentWidget()->mapFromGlobal(globalPointer) : globalPointer;
    move(at + QPoint(kOffset, kOffset));
    raise();
    show();
}

}  // namespace Project
