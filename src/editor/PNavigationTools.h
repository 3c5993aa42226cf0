#pragma once

#include <QIcon>
#include <QPointF>
#include <string>

#include "framework/CTool.h"
#include "framework/NavigationTools.h"

namespace Project {

// What the Move tool moves: the content of the corrected picture within its
// frame (the settings' offsets, scripting keys "imgX" and "imgY"). The
// dialog implements it.
class PContentMover {
public:
    virtual ~PContentMover() = default;
    // A drag starts: remember the offsets.
    virtual void BeginMove() = 0;
    // The content follows the pointer: `paneDelta` pane pixels since the
    // press.
    virtual void MoveContent(QPointF paneDelta) = 0;
    // The drag ends: keep the new offsets as one undoable step, or (cancelled)
    // go back to those of the press.
    virtual void EndMove(bool keep) = 0;
};

// The Move tool ("Project/Tool/MoveImage"): drags the content in the canvas.
// With the hand modifier held it springs to the Hand tool.
class PMoveImageTool final : public Velmo::CTool {
public:
    PMoveImageTool(PContentMover& mover, std::string handToolId);
    std::string SpringTool(Velmo::CImagePane& pane, Velmo::CMouseEvent& event) override;
    void MouseDown(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void AdjustCursor(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    QIcon Icon() const override;

private:
    PContentMover& mover_;
    std::string handToolId_;
};

// The framework's Hand and Zoom tools with the editor's button pictures.
class PHandTool final : public Velmo::CHandTool {
public:
    PHandTool();
    QIcon Icon() const override;
};

class PZoomTool final : public Velmo::CZoomTool {
public:
    PZoomTool();
    QIcon Icon() const override;
};

}  // namespace Project
