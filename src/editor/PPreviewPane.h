#pragma once

#include <QColor>
#include <QImage>
#include <QString>
#include <QTransform>
#include <functional>
#include <memory>
#include <optional>

#include "framework/CImagePane.h"
#include "session/PPreview.h"

namespace Project {

// The editor's preview pane: shows the live preview's images (PPreview) with
// the mesh and the constraints over them. The pane's image is the picture at
// its own size (the filtered area), so image coordinates are picture pixels.
//
// An image is drawn for the view of its request. Until the image for a newer
// view arrives, the last one is drawn moved and scaled to the current view,
// so zooming and scrolling answer at once and never wait for a solve.
//
// Two properties tell a watcher (a test, a benchmark) what is shown:
// "previewSerial" counts the images shown, and "previewCurrent" is true when
// the image answers the newest request and was drawn with that request's own
// finished warp (or is the source, with Preview off).
class PPreviewPane final : public Velmo::CImagePane {
public:
    explicit PPreviewPane(QWidget* parent = nullptr);

    // A newer request was made: the image shown is no longer current.
    void RequestMade();
    // Shows an image; `newest`: it answers the newest request.
    void ShowResult(std::shared_ptr<const PreviewResult> result, bool newest);
    const PreviewResult* Result() const { return result_.get(); }
    // The pane -> picture transform of the image shown: from its request's
    // view to the current one.
    QTransform ResultToPane() const;

    // Draws over the image (picture coordinates through ImageToPane).
    void SetOverlay(std::function<void(QPainter&)> overlay) { overlay_ = std::move(overlay); }
    void SetMeshColor(QColor color);
    // A line shown over the pane (why there is no preview); empty: none.
    void SetMessage(const QString& message);
    void SetResizeListener(std::function<void()> listener) { resized_ = std::move(listener); }
    // The pointer over the pane (pane coordinates), or none when it left.
    void SetPointerListener(std::function<void(std::optional<QPointF>)> listener) {
        pointer_ = std::move(listener);
    }

protected:
    void PaintContent(QPainter& painter) override;
    void resizeEvent(QResizeEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    std::shared_ptr<const PreviewResult> result_;
    QImage image_;
    QColor meshColor_;
    QString message_;
    std::function<void(QPainter&)> overlay_;
    std::function<void()> resized_;
    std::function<void(std::optional<QPointF>)> pointer_;
    int serial_ = 0;
};

// The loupe: the photograph's own pixels around a point, magnified, with a
// cross at the point and the constraints drawn over it in source pixels.
class PLoupePane final : public Velmo::CImagePane {
public:
    explicit PLoupePane(QWidget* parent = nullptr);

    // The photograph in display form (ReadPreviewSource), which may be a
    // reduction of the picture of pictureWidth x pictureHeight pixels.
    void SetSource(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth,
                   int32_t pictureHeight);
    // Centres the loupe on a source pixel; magnification 1 shows the
    // photograph's pixels one to one.
    void ShowAt(QPointF sourcePixel, double magnification);
    QPointF Centre() const { return centre_; }
    // Draws over the detail; its argument maps source pixels to the pane.
    void SetOverlay(
        std::function<void(QPainter&, const std::function<QPointF(QPointF)>&)> overlay) {
        overlay_ = std::move(overlay);
    }

protected:
    void PaintContent(QPainter& painter) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    QPointF ToPane(QPointF sourcePixel) const;

    std::shared_ptr<const MemoryImage> source_;
    int32_t pictureWidth_ = 0;
    int32_t pictureHeight_ = 0;
    QPointF centre_{-1, -1};
    double magnification_ = 1.4;
    std::function<void(QPainter&, const std::function<QPointF(QPointF)>&)> overlay_;
};

}  // namespace Project
