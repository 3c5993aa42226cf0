#include "editor/PNavigationTools.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

#include "editor/PDialogTexts.h"
#include "framework/CCursors.h"
#include "framework/CImagePane.h"
#include "framework/CNonPollingTracker.h"
#include "framework/ModifierFlags.h"

namespace Project {

namespace {

using namespace dialog_text;

// The Move tool's drag: the content follows the pointer.
class PImageTracker final : public Velmo::CNonPollingTracker {
public:
    explicit PImageTracker(PContentMover& mover) : mover_(mover) {}

protected:
    void Start(const Velmo::CMouseEvent&) override {
        mover_.BeginMove();
        Pane()->SetPaneCursor(Velmo::CCursors::Get(Velmo::CCursorKind::Move));
    }
    void Track(const Velmo::CMouseEvent& event) override {
        mover_.MoveContent(event.position - PressPosition());
    }
    void Finish(const Velmo::CMouseEvent& release) override {
        mover_.MoveContent(release.position - PressPosition());
        mover_.EndMove(true);
    }
    void Cancel() override { mover_.EndMove(false); }

private:
    PContentMover& mover_;
};

QIcon IconFrom(const QPixmap& picture) {
    return QIcon(picture.scaled(24, 24, Qt::KeepAspectRatio, Qt::SmoothTransformation));
}

QPixmap HandPicture() {
    QPixmap pixmap(24, 24);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(QColor(40, 40, 40), 1.2));
    p.setBrush(QColor(250, 250, 250));
    QPainterPath hand;
    // Four fingers, the palm and the thumb, united into one outline.
    for (int k = 0; k < 4; ++k) {
        const double x = 6.5 + 3.2 * k;
        const double top = k == 0 || k == 3 ? 5.5 : 3.5;
        hand.addRoundedRect(QRectF(x, top, 3.0, 12.0), 1.5, 1.5);
    }
    hand.addRoundedRect(QRectF(6.5, 10.0, 12.6, 10.5), 3.0, 3.0);
    QPainterPath thumb;
    thumb.addRoundedRect(QRectF(2.5, 11.0, 3.0, 7.5), 1.5, 1.5);
    QTransform tilt;
    tilt.translate(4.0, 14.0);
    tilt.rotate(-35);
    tilt.translate(-4.0, -14.0);
    hand = hand.united(tilt.map(thumb)).simplified();
    p.drawPath(hand);
    return pixmap;
}

}  // namespace

// ------------------------------------------------------------------ PMoveImageTool

PMoveImageTool::PMoveImageTool(PContentMover& mover, std::string handToolId)
    : CTool("MoveImageTool", std::string(kMoveTool), std::string(kMoveToolTip),
            std::string(kMoveToolHelp)),
      mover_(mover),
      handToolId_(std::move(handToolId)) {}

std::string PMoveImageTool::SpringTool(Velmo::CImagePane&, Velmo::CMouseEvent& event) {
    if (!(event.modifiers & Velmo::kModHand))
        return {};
    event.modifiers &= ~Velmo::kModHand;
    return handToolId_;
}

void PMoveImageTool::MouseDown(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) {
    pane.StartTracker(*this, event, [this] { return std::make_shared<PImageTracker>(mover_); });
}

void PMoveImageTool::AdjustCursor(Velmo::CImagePane& pane, const Velmo::CMouseEvent&) {
    pane.SetPaneCursor(Velmo::CCursors::Get(Velmo::CCursorKind::Move));
}

QIcon PMoveImageTool::Icon() const {
    return IconFrom(Velmo::CCursors::Picture(Velmo::CCursorKind::Move));
}

// ------------------------------------------------------------------ Hand and Zoom

PHandTool::PHandTool()
    : CHandTool("HandTool", std::string(kHandTool), std::string(kHandToolTip),
                std::string(kHandToolHelp)) {}

QIcon PHandTool::Icon() const {
    return QIcon(HandPicture());
}

PZoomTool::PZoomTool()
    : CZoomTool("ZoomTool", std::string(kZoomTool), std::string(kZoomToolTip),
                std::string(kZoomToolHelp), std::string(kHandTool)) {}

QIcon PZoomTool::Icon() const {
    return IconFrom(Velmo::CCursors::Picture(Velmo::CCursorKind::ZoomIn));
}

}  // namespace Project
