#pragma once

#include <QCursor>
#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <QWidget>
#include <functional>
#include <memory>
#include <vector>

#include "framework/CNonPollingTracker.h"
#include "framework/CTool.h"

namespace Velmo {

class CToolSet;

// A pane that shows an image at a zoom factor and hands its mouse and key
// events to a tool set. Coordinates:
//   pane:  pixels of this widget, double, origin at its top-left corner;
//   image: pixels of the shown image, origin at its top-left corner;
//   pane = origin + zoom * image, where origin is the pane position of the
//   image's top-left corner (scrolling moves it).
// The pane tracks the hand key (Space) itself, since Qt does not report it as
// a modifier, and runs at most one tracker at a time.
class CImagePane : public QWidget {
public:
    explicit CImagePane(QWidget* parent = nullptr);
    ~CImagePane() override;

    void SetToolSet(CToolSet* tools) { tools_ = tools; }
    CToolSet* ToolSet() const { return tools_; }

    // --- Geometry.
    void SetImageSize(QSizeF size);
    QSizeF ImageSize() const { return imageSize_; }
    double Zoom() const { return zoom_; }
    // Clamped into the zoom range; keeps the image point under `anchor`
    // (pane coordinates) where it is.
    void SetZoom(double zoom, QPointF anchor);
    void SetZoom(double zoom) { SetZoom(zoom, QPointF(width() / 2.0, height() / 2.0)); }
    void SetZoomRange(double minimum, double maximum);
    double MinimumZoom() const { return minZoom_; }
    double MaximumZoom() const { return maxZoom_; }
    // Space left around the image by FitInView, pixels.
    void SetCushion(int pixels) { cushion_ = pixels; }
    int Cushion() const { return cushion_; }
    // Zooms and centres so that the whole image fits inside the cushion.
    void FitInView();
    QPointF Origin() const { return origin_; }
    void SetOrigin(QPointF origin);
    // Scrolls the content by (dx, dy) pane pixels.
    void ScrollBy(QPointF delta) { SetOrigin(origin_ + delta); }
    // The image's rectangle in pane coordinates.
    QRectF ImageRect() const { return {origin_, imageSize_ * zoom_}; }
    QPointF PaneToImage(QPointF pane) const { return (pane - origin_) / zoom_; }
    QPointF ImageToPane(QPointF image) const { return origin_ + image * zoom_; }
    // Told after every change of zoom, origin or image size (the scroller
    // holds this one).
    void SetViewListener(std::function<void()> listener) { viewListener_ = std::move(listener); }
    // Further listeners, told after that one (the application's).
    void AddViewListener(std::function<void()> listener) {
        moreViewListeners_.push_back(std::move(listener));
    }

    // --- Tools and drags.
    // Starts a drag for `tool` at the press `event`: makes the tracker with
    // `factory` and calls its Start. False (and the factory is not called)
    // while another drag runs; false when the factory returns null.
    bool StartTracker(CTool& tool, const CMouseEvent& event, const CTrackerFactory& factory);
    CNonPollingTracker* Tracker() const { return tracker_.get(); }
    // Abandons the running drag, as Escape does: the tracker's Cancel, then
    // the tool's Cancel.
    void CancelTracking();
    // Ends the running drag without calling Finish or Cancel: for a tracker
    // that decides in Start or Track that there is nothing to drag.
    void StopTracking();
    // The modifier flags now: Qt's keyboard modifiers and the hand key.
    uint32_t Modifiers() const;
    bool HandKeyDown() const { return handKeyDown_; }

    // --- Cursor, set by tools.
    void SetPaneCursor(const QCursor& cursor) { setCursor(cursor); }

protected:
    // Draws the content; the default fills the image rectangle in grey.
    virtual void PaintContent(QPainter& painter);

    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void changeEvent(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    CMouseEvent MakeEvent(QPointF position, Qt::KeyboardModifiers modifiers);
    // Detaches the running tracker and returns it (null when none).
    std::shared_ptr<CNonPollingTracker> EndTracking();
    // Shift, Alt, Control or the hand key went down or up.
    void ModifierKey(const QKeyEvent& event);
    void SetHandKey(bool down);
    void NotifyView();

    CToolSet* tools_ = nullptr;
    QSizeF imageSize_{0, 0};
    double zoom_ = 1.0;
    double minZoom_ = 0.001;
    double maxZoom_ = 16.0;
    int cushion_ = 0;
    QPointF origin_{0, 0};
    std::function<void()> viewListener_;
    std::vector<std::function<void()>> moreViewListeners_;
    std::shared_ptr<CNonPollingTracker> tracker_;
    Qt::KeyboardModifiers lastQtModifiers_;
    bool handKeyDown_ = false;
};

}  // namespace Velmo
