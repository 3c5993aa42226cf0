#pragma once

#include <QWidget>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QComboBox;
class QLineEdit;
class QScrollBar;
class QSlider;

namespace Velmo {

class CImagePane;
class CToolSet;

// A slider with a numeric field: `positions` slider stops spread evenly over
// [minimum, maximum], a field `digits` characters wide showing the value with
// `decimals` fixed decimals. Steps: the arrow keys move by the minor step,
// Page Up / Page Down (and Shift with the arrows in the field) by the major
// step. The field accepts typed values, clamped into the range, when it
// loses the focus or Enter is pressed (which goes no further). The widget
// hands its focus to the field.
class CSlider : public QWidget {
public:
    struct Setup {
        double minimum = 0.0;
        double maximum = 100.0;
        int positions = 101;
        int digits = 6;
        int decimals = 0;
        double minorStep = 1.0;
        double majorStep = 10.0;
    };

    explicit CSlider(QWidget* parent = nullptr);

    void Configure(const Setup& setup);
    const Setup& Configuration() const { return setup_; }
    // The range may change at run time (the value is clamped into it).
    void SetRange(double minimum, double maximum);
    double Value() const { return value_; }
    // Clamped and rounded to the decimals; does not call the listener.
    void SetValue(double value);
    // Told of every change the user makes.
    void SetListener(std::function<void(double value)> listener) {
        listener_ = std::move(listener);
    }

    QSlider* Slider() const { return slider_; }
    QLineEdit* Field() const { return field_; }
    // The slider stop nearest to a value.
    int PositionFor(double value) const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    double Clamp(double value) const;
    void Show();
    // The value typed into the field, or back to the shown one.
    void TakeTyped();
    void UserSet(double value);

    Setup setup_;
    double value_ = 0.0;
    QSlider* slider_;
    QLineEdit* field_;
    std::function<void(double)> listener_;
    bool showing_ = false;
};

// A scroller around an image pane: both scroll bars, and a gap left of the
// horizontal bar that holds a small control (a zoom combo). The bars follow
// the pane's zoom and origin and scroll it.
class CScroller : public QWidget {
public:
    explicit CScroller(QWidget* parent = nullptr);

    // Takes the pane (reparented into the scroller).
    void SetPane(CImagePane* pane);
    // Takes the control for the gap.
    void SetGapWidget(QWidget* widget);
    CImagePane* Pane() const { return pane_; }
    QScrollBar* HorizontalBar() const { return horizontal_; }
    QScrollBar* VerticalBar() const { return vertical_; }

private:
    void SyncBars();

    CImagePane* pane_ = nullptr;
    QScrollBar* horizontal_;
    QScrollBar* vertical_;
    QWidget* gap_;
    bool syncing_ = false;
};

// A grid of buttons, one per tool of a tool set, checked for the current
// tool; a click makes its tool current. Each button carries its tool's view
// id, tip and help.
class CToolGrid : public QWidget {
public:
    CToolGrid(CToolSet& set, const std::vector<std::string>& toolIds, int columns,
              QWidget* parent = nullptr);
    ~CToolGrid() override;

private:
    void Follow();

    CToolSet& set_;
    std::weak_ptr<const void> setAlive_;
    int listener_ = 0;
};

}  // namespace Velmo
