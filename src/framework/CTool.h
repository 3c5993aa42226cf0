#pragma once

#include <QChar>
#include <QIcon>
#include <QPointF>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/ViewId.h"

namespace Velmo {

class CImagePane;
class CToolSet;

// A mouse event as tools receive it: the position in pane coordinates
// (pixels of the pane widget, double) and the modifier flags of
// ModifierFlags.h. CImagePane converts to image coordinates.
struct CMouseEvent {
    QPointF position;
    uint32_t modifiers = 0;
};

// A key event: the key code of ModifierFlags.h (Escape is 27) and the
// modifier flags.
struct CKeyEvent {
    int code = 0;
    uint32_t modifiers = 0;
    bool autoRepeat = false;
};

// A tool of a tool set: it receives the mouse and key events of an image pane
// while it is the set's current tool (or while it is spring-loaded, below).
// A tool starts a drag by handing a tracker to the pane in MouseDown
// (CImagePane::StartTracker); while the drag runs the tracker, not the tool,
// receives the pointer.
//
// Names: a tool is registered under its name and its view id. Its tip is a
// localisable key whose text ends with the shortcut letter in parentheses
// ("$$$/Curvana/Tool/Zoom=Zoom Tool (Z)"); its help text is what the help
// line shows while the pointer rests on its button.
class CTool {
public:
    CTool(std::string name, std::string viewId, std::string tipKey = {}, std::string helpKey = {});
    virtual ~CTool() = default;
    CTool(const CTool&) = delete;
    CTool& operator=(const CTool&) = delete;

    const std::string& Name() const { return name_; }
    const std::string& ViewIdPath() const { return viewId_; }
    CViewId ViewCode() const { return ViewIdOf(viewId_); }
    const std::string& TipKey() const { return tipKey_; }
    const std::string& HelpKey() const { return helpKey_; }
    // The keyboard shortcut: the single letter in parentheses at the end of
    // the localised tip, upper case; a null QChar when there is none.
    QChar Shortcut() const;
    // The set the tool is registered in (null before registration).
    CToolSet* Set() const { return set_; }

    // Spring-loading: asked before every mouse event while this tool would
    // receive it. Returns the view id of the tool that is to act instead
    // while the modifiers are held, or an empty string for none; the tool may
    // clear flags from `event`, which is what the other tool then receives.
    virtual std::string SpringTool(CImagePane& pane, CMouseEvent& event);

    virtual void MouseDown(CImagePane& pane, const CMouseEvent& event);
    // The pointer moved with no drag running.
    virtual void MouseMoved(CImagePane& pane, const CMouseEvent& event);
    // Sets the pane's cursor for the pointer at `event`; the default is the
    // standard arrow.
    virtual void AdjustCursor(CImagePane& pane, const CMouseEvent& event);
    // A modifier went down or up (no pointer position attached).
    virtual void ModifiersChanged(CImagePane& pane, uint32_t modifiers);
    // Returns true when the key was used.
    virtual bool KeyDown(CImagePane& pane, const CKeyEvent& event);
    // Becoming and ceasing to be the set's current tool.
    virtual void Activate();
    virtual void Deactivate();
    // Abandons what the tool is doing; the framework calls it after a
    // drag's tracker was cancelled (Escape or a lost mouse grab).
    virtual void Cancel();
    // The picture on the tool's button; the default shows the shortcut letter.
    virtual QIcon Icon() const;

private:
    friend class CToolSet;
    std::string name_;
    std::string viewId_;
    std::string tipKey_;
    std::string helpKey_;
    CToolSet* set_ = nullptr;
};

// Tools registered under names and view ids, one of them current. The set
// routes the events of its image panes: before each mouse event it resolves
// spring-loaded tools (the current tool may name another, which may name
// another in turn, each clearing flags), and the tool at the end of that
// chain acts. A spring-loaded tool acts without becoming current and is not
// activated.
class CToolSet {
public:
    explicit CToolSet(std::string viewId);
    ~CToolSet();
    CToolSet(const CToolSet&) = delete;
    CToolSet& operator=(const CToolSet&) = delete;

    const std::string& ViewIdPath() const { return viewId_; }

    // Registers a tool; returns it, or null (and destroys it) when its name
    // or view id is already taken. The first tool registered becomes current.
    CTool* Add(std::unique_ptr<CTool> tool);
    CTool* Find(std::string_view viewId) const;
    CTool* FindByName(std::string_view name) const;
    const std::vector<std::unique_ptr<CTool>>& Tools() const { return tools_; }

    CTool* Current() const { return current_; }
    // Makes the tool with `viewId` current (deactivating the old one,
    // activating the new one). False when there is no such tool.
    bool Select(std::string_view viewId);
    // Selects the tool whose shortcut is `letter` (any case). False when none.
    bool SelectByShortcut(QChar letter);

    // Event routing, called by CImagePane.
    // The tool that acts on `event` after spring-loading (may change flags).
    CTool* ActingTool(CImagePane& pane, CMouseEvent& event) const;
    void MouseDown(CImagePane& pane, CMouseEvent event);
    void MouseMoved(CImagePane& pane, CMouseEvent event);
    void AdjustCursor(CImagePane& pane, CMouseEvent event);
    void ModifiersChanged(CImagePane& pane, uint32_t modifiers);
    // A key for the current tool; when the tool does not use it and it is a
    // shortcut letter pressed without Control or Alt, the tool is switched.
    bool KeyDown(CImagePane& pane, const CKeyEvent& event);
    // Switches to the tool with `viewId` and hands it this mouse-down, as a
    // tool does when the press belongs to another tool. False when no such
    // tool exists.
    bool Forward(std::string_view viewId, CImagePane& pane, const CMouseEvent& event);

    // Told whenever the current tool changes (tool buttons follow it).
    // Returns a handle for RemoveListener.
    int AddListener(std::function<void(CTool* current)> listener);
    void RemoveListener(int handle);
    // Expires when the set is destroyed: widgets bound to a set hold it to
    // know whether they may still call it.
    std::weak_ptr<const void> Lifetime() const { return lifetime_; }

private:
    std::shared_ptr<const void> lifetime_ = std::make_shared<int>(0);
    std::string viewId_;
    std::vector<std::unique_ptr<CTool>> tools_;
    CTool* current_ = nullptr;
    std::vector<std::pair<int, std::function<void(CTool*)>>> listeners_;
    int nextListener_ = 1;
};

}  // namespace Velmo
