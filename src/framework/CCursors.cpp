#include "framework/CCursors.h"

#include <QCoreApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>
#include <QString>
#include <QTransform>
#include <cmath>
#include <map>

namespace Velmo {

namespace {

constexpr int kSize = 32;

// Strokes a path twice: a wide light halo, then the dark line.
void Stroke(QPainter& p, const QPainterPath& path, double width = 1.5) {
    p.setBrush(Qt::NoBrush);
    p.setPen(
        QPen(QColor(255, 255, 255, 230), width + 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(path);
    p.setPen(QPen(Qt::black, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(path);
}

// Fills a closed outline light with a dark edge.
void Fill(QPainter& p, const QPainterPath& path) {
    p.setPen(QPen(Qt::black, 1.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::white);
    p.drawPath(path);
}

QPainterPath ArrowHead(QPointF tip, QPointF direction, double length = 5.0, double half = 3.5) {
    const double norm = std::hypot(direction.x(), direction.y());
    const QPointF d = direction / (norm > 0 ? norm : 1.0);
    const QPointF n(-d.y(), d.x());
    QPainterPath head;
    head.moveTo(tip);
    head.lineTo(tip - d * length + n * half);
    head.lineTo(tip - d * length - n * half);
    head.closeSubpath();
    return head;
}

void DrawArrow(QPainter& p) {
    // The pointer shape, tip at (1, 1).
    QPainterPath arrow;
    arrow.moveTo(1, 1);
    arrow.lineTo(1, 17);
    arrow.lineTo(5, 13);
    arrow.lineTo(8, 20);
    arrow.lineTo(10.5, 19);
    arrow.lineTo(7.5, 12);
    arrow.lineTo(13, 12);
    arrow.closeSubpath();
    Fill(p, arrow);
}

void DrawCrosshair(QPainter& p, QPointF c) {
    QPainterPath path;
    path.moveTo(c.x() - 10, c.y());
    path.lineTo(c.x() - 3, c.y());
    path.moveTo(c.x() + 3, c.y());
    path.lineTo(c.x() + 10, c.y());
    path.moveTo(c.x(), c.y() - 10);
    path.lineTo(c.x(), c.y() - 3);
    path.moveTo(c.x(), c.y() + 3);
    path.lineTo(c.x(), c.y() + 10);
    Stroke(p, path, 1.0);
}

void DrawMove(QPainter& p, QPointF c) {
    QPainterPath path;
    path.moveTo(c.x() - 9, c.y());
    path.lineTo(c.x() + 9, c.y());
    path.moveTo(c.x(), c.y() - 9);
    path.lineTo(c.x(), c.y() + 9);
    Stroke(p, path);
    for (const QPointF d : {QPointF(1, 0), QPointF(-1, 0), QPointF(0, 1), QPointF(0, -1)})
        Fill(p, ArrowHead(c + d * 11, d));
}

// A badge in the lower right of the pointer.
void DrawBadge(QPainter& p, CCursorKind kind) {
    const QRectF box(16, 17, 12, 12);
    p.setPen(QPen(Qt::black, 1.0));
    p.setBrush(Qt::white);
    p.drawRect(box);
    QPainterPath mark;
    if (kind == CCursorKind::Delete) {
        mark.moveTo(box.left() + 3, box.center().y());
        mark.lineTo(box.right() - 3, box.center().y());
    } else {
        // A right angle: the horizontal and vertical an orientation toggles.
        mark.moveTo(box.left() + 3, box.top() + 3);
        mark.lineTo(box.left() + 3, box.bottom() - 3);
        mark.lineTo(box.right() - 3, box.bottom() - 3);
    }
    p.setPen(QPen(Qt::black, 1.5, Qt::SolidLine, Qt::SquareCap, Qt::MiterJoin));
    p.setBrush(Qt::NoBrush);
    p.drawPath(mark);
}

void DrawPolygonBadge(QPainter& p) {
    QPainterPath poly;
    poly.addPolygon(
        QPolygonF({QPointF(19, 19), QPointF(29, 21), QPointF(27, 29), QPointF(18, 27)}));
    poly.closeSubpath();
    Fill(p, poly);
}

void DrawRotate(QPainter& p, int index) {
    // A quarter arc around the centre with a head at either end, turned by
    // index * 45 degrees (counter-clockwise on screen).
    p.save();
    p.translate(kSize / 2.0, kSize / 2.0);
    p.rotate(-45.0 * index);
    const double r = 9.0;
    QPainterPath arc;
    arc.arcMoveTo(QRectF(-r, -r, 2 * r, 2 * r), 45.0);
    arc.arcTo(QRectF(-r, -r, 2 * r, 2 * r), 45.0, 90.0);
    Stroke(p, arc);
    const auto at = [r](double deg) {
        const double a = deg * M_PI / 180.0;
        return QPointF(r * std::cos(a), -r * std::sin(a));
    };
    // Tangents at the ends, pointing away from the arc.
    const auto tangent = [](double deg, double sign) {
        const double a = deg * M_PI / 180.0;
        return QPointF(-std::sin(a), -std::cos(a)) * sign;
    };
    Fill(p, ArrowHead(at(40.0), tangent(40.0, -1.0)));
    Fill(p, ArrowHead(at(140.0), tangent(140.0, 1.0)));
    p.restore();
    // The pivot.
    p.setPen(QPen(Qt::black, 1.0));
    p.setBrush(Qt::white);
    p.drawEllipse(QPointF(kSize / 2.0, kSize / 2.0), 2.0, 2.0);
}

void DrawZoom(QPainter& p, bool in) {
    const QPointF c(12, 12);
    QPainterPath lens;
    lens.addEllipse(c, 7, 7);
    p.setBrush(Qt::white);
    p.setPen(QPen(Qt::black, 1.5));
    p.drawPath(lens);
    QPainterPath handle;
    handle.moveTo(17, 17);
    handle.lineTo(26, 26);
    Stroke(p, handle, 3.0);
    QPainterPath sign;
    sign.moveTo(c.x() - 4, c.y());
    sign.lineTo(c.x() + 4, c.y());
    if (in) {
        sign.moveTo(c.x(), c.y() - 4);
        sign.lineTo(c.x(), c.y() + 4);
    }
    p.setPen(QPen(Qt::black, 1.5));
    p.setBrush(Qt::NoBrush);
    p.drawPath(sign);
}

QPixmap Draw(CCursorKind kind, int index) {
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const QPointF centre(kSize / 2.0, kSize / 2.0);
    switch (kind) {
        case CCursorKind::Crosshair:
            DrawCrosshair(p, centre);
            break;
        case CCursorKind::Move:
            DrawMove(p, centre);
            break;
        case CCursorKind::Delete:
        case CCursorKind::Orientation:
            DrawArrow(p);
            DrawBadge(p, kind);
            break;
        case CCursorKind::Polygon:
            DrawCrosshair(p, QPointF(11, 11));
            DrawPolygonBadge(p);
            break;
        case CCursorKind::Rotate:
            DrawRotate(p, index);
            break;
        case CCursorKind::ZoomIn:
            DrawZoom(p, true);
            break;
        case CCursorKind::ZoomOut:
            DrawZoom(p, false);
            break;
        default:
            break;
    }
    p.end();
    return pixmap;
}

QPoint HotSpot(CCursorKind kind) {
    switch (kind) {
        case CCursorKind::Delete:
        case CCursorKind::Orientation:
            return {1, 1};
        case CCursorKind::Polygon:
            return {11, 11};
        case CCursorKind::ZoomIn:
        case CCursorKind::ZoomOut:
            return {12, 12};
        default:
            return {kSize / 2, kSize / 2};
    }
}

bool IsSystemCursor(CCursorKind kind) {
    return kind == CCursorKind::Arrow || kind == CCursorKind::Hand || kind == CCursorKind::Grab;
}

int NormalIndex(CCursorKind kind, int index) {
    if (kind != CCursorKind::Rotate)
        return 0;
    return ((index % kRotationCursors) + kRotationCursors) % kRotationCursors;
}

}  // namespace

QPixmap CCursors::Picture(CCursorKind kind, int index) {
    if (IsSystemCursor(kind))
        return {};
    // Drawn on first use; the GUI runs on one thread. Emptied when the
    // application object goes, since pixmaps must not outlive it.
    static std::map<std::pair<CCursorKind, int>, QPixmap> cache;
    static const bool cleanupRegistered = [] {
        qAddPostRoutine([] { cache.clear(); });
        return true;
    }();
    (void)cleanupRegistered;
    const auto key = std::make_pair(kind, NormalIndex(kind, index));
    auto it = cache.find(key);
    if (it == cache.end())
        it = cache.emplace(key, Draw(kind, key.second)).first;
    return it->second;
}

QCursor CCursors::Get(CCursorKind kind, int index) {
    switch (kind) {
        case CCursorKind::Arrow:
            return QCursor(Qt::ArrowCursor);
        case CCursorKind::Hand:
            return QCursor(Qt::OpenHandCursor);
        case CCursorKind::Grab:
            return QCursor(Qt::ClosedHandCursor);
        default:
            break;
    }
    const QPoint hot = HotSpot(kind);
    return QCursor(Picture(kind, index), hot.x(), hot.y());
}

int CCursors::RotationIndexForAngle(double degrees) {
    if (!std::isfinite(degrees))
        return 0;
    // The arrow of index k is centred on the direction 90 + 45 k degrees
    // (its arc runs across the top when k = 0); a handle at `degrees` wants
    // the arc centred on itself.
    const double steps = std::round((degrees - 90.0) / 45.0);
    return NormalIndex(CCursorKind::Rotate, static_cast<int>(std::fmod(steps, kRotationCursors)));
}

QPixmap DrawNamedIcon(const QString& name, QSize size) {
    if (name != QLatin1String("SolverFailureIcon") || size.isEmpty())
        return {};
    // A warning disc with an exclamation mark.
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(pixmap.rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(210, 40, 30));
    p.drawEllipse(box);
    p.setPen(QPen(Qt::white, std::max(1.5, size.width() / 7.0), Qt::SolidLine, Qt::RoundCap));
    const double cx = box.center().x();
    p.drawLine(QPointF(cx, box.top() + box.height() * 0.22),
               QPointF(cx, box.top() + box.height() * 0.58));
    p.drawPoint(QPointF(cx, box.top() + box.height() * 0.78));
    p.end();
    return pixmap;
}

}  // namespace Velmo
