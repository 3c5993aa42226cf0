#pragma once

#include <string>

#include "framework/CTool.h"

namespace Velmo {

// Navigation tools that any image editor built on the framework can register.

// Drags the image in the pane (scrolls it).
class CHandTool : public CTool {
public:
    using CTool::CTool;
    void MouseDown(CImagePane& pane, const CMouseEvent& event) override;
    void AdjustCursor(CImagePane& pane, const CMouseEvent& event) override;
};

// A click zooms in by a factor of 2 around the click, Alt-click zooms out by 2;
// a drag zooms so that the dragged rectangle fills the pane. While the hand
// modifier is held it springs to the tool `handToolId`, clearing the hand and
// Alt flags from the event.
class CZoomTool : public CTool {
public:
    CZoomTool(std::string name, std::string viewId, std::string tipKey, std::string helpKey,
              std::string handToolId);
    std::string SpringTool(CImagePane& pane, CMouseEvent& event) override;
    void MouseDown(CImagePane& pane, const CMouseEvent& event) override;
    void AdjustCursor(CImagePane& pane, const CMouseEvent& event) override;

    // A drag shorter than this (pane pixels, in x and in y) is a click.
    static constexpr double kClickSlop = 4.0;

private:
    std::string handToolId_;
};

}  // namespace Velmo
