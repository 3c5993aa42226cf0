#pragma once

#include <QPointF>
#include <cstdint>
#include <functional>
#include <memory>

#include "framework/CTool.h"

namespace Velmo {

class CImagePane;

// One mouse drag, from press to release. A tool makes a tracker in its
// MouseDown through a factory handed to CImagePane::StartTracker; the pane
// then feeds it, event by event (nothing polls the mouse):
//   Start(press)   once, right after it is made;
//   Track(event)   for every pointer move while the button is held;
//   Finish(event)  on release;
//   or Cancel()    instead of Finish when the drag is abandoned: Escape
//                  (key code 27) or the pane losing the mouse (its window
//                  deactivated, the pane hidden or disabled, a popup taking
//                  the pointer, or the button found released without a
//                  release event). After Cancel the framework also calls the
//                  owning tool's Cancel.
// Positions are pane coordinates (double); the pane converts them to image
// coordinates (CImagePane::PaneToImage).
class CNonPollingTracker {
public:
    virtual ~CNonPollingTracker() = default;
    CNonPollingTracker(const CNonPollingTracker&) = delete;
    CNonPollingTracker& operator=(const CNonPollingTracker&) = delete;

    CImagePane* Pane() const { return pane_; }
    CTool* Tool() const { return tool_; }
    QPointF PressPosition() const { return press_; }
    QPointF CurrentPosition() const { return current_; }
    uint32_t PressModifiers() const { return pressModifiers_; }
    // The flags of the latest event (modifiers may change during a drag).
    uint32_t CurrentModifiers() const { return currentModifiers_; }
    bool Running() const { return running_; }

protected:
    CNonPollingTracker() = default;

    virtual void Start(const CMouseEvent& press);
    virtual void Track(const CMouseEvent& event);
    virtual void Finish(const CMouseEvent& release);
    virtual void Cancel();
    // A modifier went down or up during the drag.
    virtual void ModifiersChanged(uint32_t modifiers);

private:
    friend class CImagePane;
    CImagePane* pane_ = nullptr;
    CTool* tool_ = nullptr;
    QPointF press_;
    QPointF current_;
    uint32_t pressModifiers_ = 0;
    uint32_t currentModifiers_ = 0;
    bool running_ = false;
};

// Makes the tracker for one drag; called once by StartTracker.
using CTrackerFactory = std::function<std::shared_ptr<CNonPollingTracker>()>;

}  // namespace Velmo
