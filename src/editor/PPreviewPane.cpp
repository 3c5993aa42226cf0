#include "editor/PPreviewPane.h"

#include <QMouseEvent>
#include <QPainter>
#include <QResizeEvent>
#include <algorithm>
#include <cmath>

namespace Project {

namespace {

constexpr const char* kSerialProperty = "previewSerial";
constexpr const char* kCurrentProperty = "previewCurrent";

QColor PaneBackground() {
    return QColor(58, 58, 60);
}

}  // namespace

// ------------------------------------------------------------------ PPreviewPane

PPreviewPane::PPreviewPane(QWidget* parent) : CImagePane(parent), meshColor_(74, 255, 74) {
    QPalette p = palette();
    p.setColor(QPalette::Dark, PaneBackground());
    setPalette(p);
    setProperty(kSerialProperty, 0);
    setProperty(kCurrentProperty, false);
}

void PPreviewPane::RequestMade() {
    setProperty(kCurrentProperty, false);
}

void PPreviewPane::ShowResult(std::shared_ptr<const PreviewResult> result, bool newest) {
    if (!result || result->width <= 0 || result->height <= 0 ||
        result->rgba.size() != static_cast<size_t>(result->width) * result->height * 4)
        return;
    image_ = QImage(result->rgba.data(), result->width, result->height, result->width * 4,
                    QImage::Format_RGBA8888)
                 .copy();
    result_ = std::move(result);
    setProperty(kSerialProperty, ++serial_);
    setProperty(kCurrentProperty, newest && result_->current);
    update();
}

QTransform PPreviewPane::ResultToPane() const {
    if (!result_)
        return {};
    // Picture point q was drawn at (q - (left, top)) * zoom of its view and
    // belongs at origin + q * Zoom() now.
    const PreviewView& v = result_->view;
    const double s = Zoom() / v.zoom;
    return QTransform(s, 0, 0, s, v.left * Zoom() + Origin().x(), v.top * Zoom() + Origin().y());
}

void PPreviewPane::SetMeshColor(QColor color) {
    meshColor_ = color;
    update();
}

void PPreviewPane::SetMessage(const QString& message) {
    if (message == message_)
        return;
    message_ = message;
    update();
}

void PPreviewPane::PaintContent(QPainter& painter) {
    if (image_.isNull()) {
        painter.fillRect(ImageRect(), palette().color(QPalette::Mid));
    } else {
        painter.save();
        const QTransform t = ResultToPane();
        painter.setTransform(t, true);
        if (std::abs(t.m11() - 1.0) > 1e-9)
            painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(QPointF(0, 0), image_);
        if (!result_->meshLines.empty()) {
            painter.setRenderHint(QPainter::Antialiasing);
            QPen pen(meshColor_, 1.0);
            pen.setCosmetic(true);
            painter.setPen(pen);
            for (const auto& line : result_->meshLines) {
                QPolygonF poly;
                poly.reserve(static_cast<qsizetype>(line.size()));
                for (const PointF p : line)
                    poly << QPointF(p.x, p.y);
                painter.drawPolyline(poly);
            }
        }
        painter.restore();
    }
    if (overlay_)
        overlay_(painter);
    if (!message_.isEmpty()) {
        painter.save();
        const QRectF box = QRectF(rect()).adjusted(12, 12, -12, -12);
        painter.setPen(Qt::white);
        painter.drawText(box, Qt::AlignHCenter | Qt::AlignBottom | Qt::TextWordWrap, message_);
        painter.restore();
    }
}

void PPreviewPane::resizeEvent(QResizeEvent* event) {
    CImagePane::resizeEvent(event);
    if (resized_)
        resized_();
}

void PPreviewPane::mouseMoveEvent(QMouseEvent* event) {
    CImagePane::mouseMoveEvent(event);
    if (pointer_)
        pointer_(event->position());
}

void PPreviewPane::leaveEvent(QEvent* event) {
    CImagePane::leaveEvent(event);
    if (pointer_)
        pointer_(std::nullopt);
}

// ------------------------------------------------------------------ PLoupePane

PLoupePane::PLoupePane(QWidget* parent) : CImagePane(parent) {
    QPalette p = palette();
    p.setColor(QPalette::Dark, PaneBackground());
    setPalette(p);
    setFocusPolicy(Qt::NoFocus);
    setMouseTracking(false);
}

void PLoupePane::SetSource(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth,
                           int32_t pictureHeight) {
    source_ = std::move(source);
    pictureWidth_ = pictureWidth;
    pictureHeight_ = pictureHeight;
    SetImageSize(QSizeF(pictureWidth, pictureHeight));
    update();
}

void PLoupePane::ShowAt(QPointF sourcePixel, double magnification) {
    if (!(magnification > 0.0))
        return;
    if (sourcePixel == centre_ && magnification == magnification_)
        return;
    centre_ = sourcePixel;
    magnification_ = magnification;
    update();
}

QPointF PLoupePane::ToPane(QPointF sourcePixel) const {
    return (sourcePixel - centre_) * magnification_ + QPointF(width() / 2.0, height() / 2.0);
}

void PLoupePane::mousePressEvent(QMouseEvent* event) {
    // The loupe only shows.
    event->ignore();
}

void PLoupePane::PaintContent(QPainter& painter) {
    if (!source_ || pictureWidth_ <= 0 || centre_.x() < 0)
        return;
    // The source pixels the pane covers, in the source image's own grid.
    const double levelScale = static_cast<double>(source_->Width()) / pictureWidth_;
    const double halfW = width() / (2.0 * magnification_);
    const double halfH = height() / (2.0 * magnification_);
    const int32_t x0 =
        std::max(0, static_cast<int32_t>(std::floor((centre_.x() - halfW) * levelScale)));
    const int32_t y0 =
        std::max(0, static_cast<int32_t>(std::floor((centre_.y() - halfH) * levelScale)));
    const int32_t x1 = std::min(
        source_->Width(), static_cast<int32_t>(std::ceil((centre_.x() + halfW) * levelScale)) + 1);
    const int32_t y1 = std::min(
        source_->Height(), static_cast<int32_t>(std::ceil((centre_.y() + halfH) * levelScale)) + 1);
    if (x1 > x0 && y1 > y0) {
        QImage crop(x1 - x0, y1 - y0, QImage::Format_RGB32);
        for (int32_t y = y0; y < y1; ++y) {
            auto* row = reinterpret_cast<QRgb*>(crop.scanLine(y - y0));
            const size_t at = static_cast<size_t>(y) * source_->Width();
            for (int32_t x = x0; x < x1; ++x)
                row[x - x0] = qRgb(source_->PlaneData(0)[at + x], source_->PlaneData(1)[at + x],
                                   source_->PlaneData(2)[at + x]);
        }
        // Each source pixel as a square: the loupe is for looking at pixels.
        const QPointF topLeft = ToPane(QPointF(x0 / levelScale, y0 / levelScale));
        const QPointF bottomRight = ToPane(QPointF(x1 / levelScale, y1 / levelScale));
        painter.drawImage(QRectF(topLeft, bottomRight), crop);
    }
    if (overlay_)
        overlay_(painter, [this](QPointF p) { return ToPane(p); });
    // The point itself.
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    const QPointF c(width() / 2.0, height() / 2.0);
    for (const auto& [pen, gap] : {std::pair{QPen(QColor(0, 0, 0, 160), 3.0), 4.0},
                                   std::pair{QPen(QColor(255, 255, 255), 1.0), 4.0}}) {
        painter.setPen(pen);
        painter.drawLine(QPointF(c.x() - 12, c.y()), QPointF(c.x() - gap, c.y()));
        painter.drawLine(QPointF(c.x() + gap, c.y()), QPointF(c.x() + 12, c.y()));
        painter.drawLine(QPointF(c.x(), c.y() - 12), QPointF(c.x(), c.y() - gap));
        painter.drawLine(QPointF(c.x(), c.y() + gap), QPointF(c.x(), c.y() + 12));
    }
    painter.restore();
}

}  // namespace Project
