#pragma once

#include <QLabel>
#include <QPoint>

namespace Project {

// The small window that shows a line's angle while its rotation handle is
// dragged: placed 2 pixels right of and below the pointer, following it.
// A child of the dialog (object name "Project/Dialog/AngleWindow"), so it
// needs no window of its own and never takes the focus.
class PAngleWindow final : public QLabel {
public:
    explicit PAngleWindow(QWidget* parent);

    // Shows `degrees` (one decimal) at the global pointer position + (2, 2).
    void ShowAngle(double degrees, QPoint globalPointer);

    static constexpr int kOffset = 2;
};

}  // namespace Project
