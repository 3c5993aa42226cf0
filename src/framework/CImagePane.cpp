#include "framework/CImagePane.h"

#include <QApplication>
#include <QFocusEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>

#include "framework/CCursors.h"
#include "framework/ModifierFlags.h"

namespace Velmo {

namespace {

bool IsModifierKey(int key) {
    return key == Qt::Key_Shift || key == Qt::Key_Alt || key == Qt::Key_Control ||
           key == Qt::Key_Meta || key == kHandKey;
}

}  // namespace

int KeyCodeFromQt(int qtKey) {
    switch (qtKey) {
        case Qt::Key_Escape:
            return kKeyEscape;
        case Qt::Key_Backspace:
            return kKeyBackspace;
        case Qt::Key_Tab:
            return kKeyTab;
        case Qt::Key_Return:
        case Qt::Key_Enter:
            return kKeyReturn;
        case Qt::Key_Delete:
            return kKeyDelete;
        default:
            break;
    }
    // Qt's printable keys already are their (upper-case) Unicode values.
    return qtKey;
}

CImagePane::CImagePane(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

CImagePane::~CImagePane() {
    // Tools may already be gone: no callbacks, only the filter is removed.
    EndTracking();
}

void CImagePane::SetImageSize(QSizeF size) {
    imageSize_ = size;
    NotifyView();
    update();
}

void CImagePane::SetZoom(double zoom, QPointF anchor) {
    if (!(zoom > 0.0))
        return;
    const QPointF image = PaneToImage(anchor);
    zoom_ = std::clamp(zoom, minZoom_, maxZoom_);
    origin_ = anchor - image * zoom_;
    NotifyView();
    update();
}

void CImagePane::SetZoomRange(double minimum, double maximum) {
    if (!(minimum > 0.0) || !(maximum >= minimum))
        return;
    minZoom_ = minimum;
    maxZoom_ = maximum;
    if (zoom_ < minZoom_ || zoom_ > maxZoom_)
        SetZoom(std::clamp(zoom_, minZoom_, maxZoom_));
}

void CImagePane::FitInView() {
    if (imageSize_.isEmpty())
        return;
    const double availableW = std::max(1, width() - 2 * cushion_);
    const double availableH = std::max(1, height() - 2 * cushion_);
    zoom_ = std::clamp(std::min(availableW / imageSize_.width(), availableH / imageSize_.height()),
                       minZoom_, maxZoom_);
    const QSizeF shown = imageSize_ * zoom_;
    origin_ = QPointF((width() - shown.width()) / 2.0, (height() - shown.height()) / 2.0);
    NotifyView();
    update();
}

void CImagePane::SetOrigin(QPointF origin) {
    if (origin == origin_)
        return;
    origin_ = origin;
    NotifyView();
    update();
}

void CImagePane::NotifyView() {
    if (viewListener_)
        viewListener_();
    for (const auto& listener : moreViewListeners_)
        listener();
}

uint32_t CImagePane::Modifiers() const {
    return ModifiersFromQt(lastQtModifiers_, handKeyDown_);
}

CMouseEvent CImagePane::MakeEvent(QPointF position, Qt::KeyboardModifiers modifiers) {
    lastQtModifiers_ = modifiers;
    return {position, ModifiersFromQt(modifiers, handKeyDown_)};
}

// ------------------------------------------------------------------ drags

bool CImagePane::StartTracker(CTool& tool, const CMouseEvent& event,
                              const CTrackerFactory& factory) {
    if (tracker_ || !factory)
        return false;
    std::shared_ptr<CNonPollingTracker> tracker = factory();
    if (!tracker)
        return false;
    tracker->pane_ = this;
    tracker->tool_ = &tool;
    tracker->press_ = tracker->current_ = event.position;
    tracker->pressModifiers_ = tracker->currentModifiers_ = event.modifiers;
    tracker->running_ = true;
    tracker_ = tracker;
    // Escape and a deactivated window must reach the drag wherever the
    // keyboard focus is.
    qApp->installEventFilter(this);
    tracker->Start(event);
    return true;
}

std::shared_ptr<CNonPollingTracker> CImagePane::EndTracking() {
    std::shared_ptr<CNonPollingTracker> tracker = std::move(tracker_);
    tracker_.reset();
    if (tracker) {
        tracker->running_ = false;
        if (qApp)
            qApp->removeEventFilter(this);
    }
    return tracker;
}

void CImagePane::StopTracking() {
    EndTracking();
}

void CImagePane::CancelTracking() {
    // Detached first: Cancel may open a modal window, which deactivates
    // this one.
    const std::shared_ptr<CNonPollingTracker> tracker = EndTracking();
    if (!tracker)
        return;
    tracker->Cancel();
    if (tracker->tool_)
        tracker->tool_->Cancel();
}

// ------------------------------------------------------------------ events

void CImagePane::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Dark));
    PaintContent(painter);
}

void CImagePane::PaintContent(QPainter& painter) {
    painter.fillRect(ImageRect(), palette().color(QPalette::Mid));
}

void CImagePane::mousePressEvent(QMouseEvent* event) {
    event->accept();
    if (event->button() != Qt::LeftButton || tracker_)
        return;
    setFocus(Qt::MouseFocusReason);
    const CMouseEvent e = MakeEvent(event->position(), event->modifiers());
    if (tools_)
        tools_->MouseDown(*this, e);
}

void CImagePane::mouseMoveEvent(QMouseEvent* event) {
    event->accept();
    const CMouseEvent e = MakeEvent(event->position(), event->modifiers());
    if (const std::shared_ptr<CNonPollingTracker> tracker = tracker_) {
        if (!(event->buttons() & Qt::LeftButton)) {
            // The release went elsewhere: the drag lost the mouse.
            CancelTracking();
            return;
        }
        tracker->current_ = e.position;
        tracker->currentModifiers_ = e.modifiers;
        tracker->Track(e);
        return;
    }
    if (tools_)
        tools_->MouseMoved(*this, e);
}

void CImagePane::mouseReleaseEvent(QMouseEvent* event) {
    event->accept();
    if (event->button() != Qt::LeftButton || !tracker_)
        return;
    const CMouseEvent e = MakeEvent(event->position(), event->modifiers());
    // Detached before Finish, which may open a modal alert.
    const std::shared_ptr<CNonPollingTracker> tracker = EndTracking();
    tracker->current_ = e.position;
    tracker->currentModifiers_ = e.modifiers;
    tracker->Finish(e);
    if (tools_ && underMouse())
        tools_->AdjustCursor(*this, e);
}

void CImagePane::SetHandKey(bool down) {
    handKeyDown_ = down;
}

void CImagePane::ModifierKey(const QKeyEvent& event) {
    if (event.key() == kHandKey) {
        if (event.isAutoRepeat())
            return;
        SetHandKey(event.type() == QEvent::KeyPress);
    }
    lastQtModifiers_ = event.modifiers();
    const uint32_t flags = Modifiers();
    if (const std::shared_ptr<CNonPollingTracker> tracker = tracker_) {
        tracker->currentModifiers_ = flags;
        tracker->ModifiersChanged(flags);
        return;
    }
    if (!tools_)
        return;
    tools_->ModifiersChanged(*this, flags);
    if (underMouse())
        tools_->AdjustCursor(*this, {mapFromGlobal(QCursor::pos()).toPointF(), flags});
}

void CImagePane::keyPressEvent(QKeyEvent* event) {
    if (IsModifierKey(event->key())) {
        ModifierKey(*event);
        return;
    }
    if (tracker_ && event->key() == Qt::Key_Escape) {
        CancelTracking();
        return;
    }
    lastQtModifiers_ = event->modifiers();
    const CKeyEvent key{KeyCodeFromQt(event->key()), Modifiers(), event->isAutoRepeat()};
    if (!tracker_ && tools_ && tools_->KeyDown(*this, key))
        return;
    event->ignore();  // on to the window (its menus and buttons)
}

void CImagePane::keyReleaseEvent(QKeyEvent* event) {
    if (IsModifierKey(event->key())) {
        ModifierKey(*event);
        return;
    }
    event->ignore();
}

void CImagePane::focusOutEvent(QFocusEvent* event) {
    QWidget::focusOutEvent(event);
    if (event->reason() == Qt::PopupFocusReason || event->reason() == Qt::ActiveWindowFocusReason) {
        CancelTracking();
        // The release of the hand key will go elsewhere.
        SetHandKey(false);
    }
}

void CImagePane::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    CancelTracking();
}

void CImagePane::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::EnabledChange && !isEnabled())
        CancelTracking();
}

bool CImagePane::eventFilter(QObject* watched, QEvent* event) {
    // Installed on the application only while a drag runs.
    if (!tracker_)
        return false;
    switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease: {
            const auto* key = static_cast<QKeyEvent*>(event);
            if (event->type() == QEvent::KeyPress && key->key() == Qt::Key_Escape) {
                CancelTracking();
                return true;
            }
            if (IsModifierKey(key->key())) {
                ModifierKey(*key);
                return true;
            }
            return false;
        }
        case QEvent::WindowDeactivate:
            if (watched == window())
                CancelTracking();
            return false;
        default:
            return false;
    }
}

}  // namespace Velmo
