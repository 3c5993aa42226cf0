#include "framework/NavigationTools.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

#include "framework/CCursors.h"
#include "framework/CImagePane.h"
#include "framework/CNonPollingTracker.h"
#include "framework/ModifierFlags.h"

namespace Velmo {

namespace {

class HandTracker final : public CNonPollingTracker {
protected:
    void Start(const CMouseEvent& press) override {
        last_ = press.position;
        Pane()->SetPaneCursor(CCursors::Get(CCursorKind::Grab));
    }
    void Track(const CMouseEvent& event) override {
        Pane()->ScrollBy(event.position - last_);
        last_ = event.position;
    }
    void Finish(const CMouseEvent& release) override {
        Track(release);
        Pane()->SetPaneCursor(CCursors::Get(CCursorKind::Hand));
    }

private:
    QPointF last_;
};

class ZoomTracker final : public CNonPollingTracker {
protected:
    void Finish(const CMouseEvent& release) override {
        CImagePane& pane = *Pane();
        const QPointF a = PressPosition();
        const QPointF b = release.position;
        const bool out = PressModifiers() & kModAlt;
        const double w = std::abs(b.x() - a.x());
        const double h = std::abs(b.y() - a.y());
        if (out || w <= CZoomTool::kClickSlop || h <= CZoomTool::kClickSlop) {
            pane.SetZoom(out ? pane.Zoom() / 2.0 : pane.Zoom() * 2.0, a);
            return;
        }
        // The dragged rectangle fills the pane, its centre at the pane's centre.
        const QPointF centre = pane.PaneToImage((a + b) / 2.0);
        const double factor = std::min(pane.width() / w, pane.height() / h);
        pane.SetZoom(pane.Zoom() * factor, (a + b) / 2.0);
        pane.SetOrigin(QPointF(pane.width() / 2.0, pane.height() / 2.0) - centre * pane.Zoom());
    }
};

}  // namespace

void CHandTool::MouseDown(CImagePane& pane, const CMouseEvent& event) {
    pane.StartTracker(*this, event, [] { return std::make_shared<HandTracker>(); });
}

void CHandTool::AdjustCursor(CImagePane& pane, const CMouseEvent&) {
    pane.SetPaneCursor(CCursors::Get(CCursorKind::Hand));
}

CZoomTool::CZoomTool(std::string name, std::string viewId, std::string tipKey, std::string helpKey,
                     std::string handToolId)
    : CTool(std::move(name), std::move(viewId), std::move(tipKey), std::move(helpKey)),
      handToolId_(std::move(handToolId)) {}

std::string CZoomTool::SpringTool(CImagePane&, CMouseEvent& event) {
    if (!(event.modifiers & kModHand))
        return {};
    event.modifiers &= ~(kModHand | kModAlt);
    return handToolId_;
}

void CZoomTool::MouseDown(CImagePane& pane, const CMouseEvent& event) {
    pane.StartTracker(*this, event, [] { return std::make_shared<ZoomTracker>(); });
}

void CZoomTool::AdjustCursor(CImagePane& pane, const CMouseEvent& event) {
    pane.SetPaneCursor(
        CCursors::Get((event.modifiers & kModAlt) ? CCursorKind::ZoomOut : CCursorKind::ZoomIn));
}

}  // namespace Velmo
