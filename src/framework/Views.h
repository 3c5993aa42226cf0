#pragma once

#include <QKeySequence>
#include <QLabel>
#include <QString>
#include <string>
#include <string_view>
#include <vector>

#include "framework/ViewId.h"

class QMenu;
class QAction;
class QToolButton;

namespace Velmo {

// Views are Qt widgets named by their view id: the id is the widget's object
// name, so a window finds its controls by id. Help texts (localisable keys)
// ride on the widget as a property that the help line reads.

// The localised text of a key, as a QString.
QString Text(std::string_view key);

void SetViewId(QWidget& widget, std::string_view viewId);
// The widget below `root` (or `root` itself) with that id; null when none.
QWidget* FindView(QWidget& root, std::string_view viewId);
QWidget* FindView(QWidget& root, CViewId viewId);
// Gives the keyboard focus to the view `viewId` when it can take focus
// (visible, enabled, accepting focus by tab or click); otherwise to the view
// `fallback` under the same condition. Returns the widget that got it, or
// null.
QWidget* FocusView(QWidget& root, CViewId viewId, CViewId fallback = kNoView);

void SetHelpKey(QWidget& widget, std::string_view helpKey);
// The widget's help key; empty when it has none.
std::string HelpKey(const QWidget& widget);

// The help line: a one-line text that shows the help text of the control the
// pointer rests on, and a default text otherwise. It watches the pointer over
// every widget of `window` (entering a widget shows the help of the nearest
// widget, itself or an enclosing one, that has help).
class CHelpLine : public QLabel {
public:
    CHelpLine(QWidget* parent, std::string defaultKey);
    ~CHelpLine() override;

    // Starts watching `window` (the help line's own window by default, as
    // soon as it is shown).
    void Watch(QWidget* window);
    void ShowDefault();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void ShowHelpFor(const QWidget* widget);

    std::string defaultKey_;
    QWidget* window_ = nullptr;
};

// One entry of a menu built from keys: the item's localisable key, the
// command's id (the action's object name; the key's path when empty), and
// the shortcut. An entry whose key is "-" is a separator.
struct CMenuItem {
    std::string_view key;
    std::string_view command = {};
    QKeySequence shortcut = {};
};

inline constexpr std::string_view kMenuSeparator = "-";

// Appends the entries to `menu`; returns the actions made (separators
// included), in order.
std::vector<QAction*> AddMenuItems(QMenu& menu, const std::vector<CMenuItem>& items);
// The action of `menu` whose command id is `command`; null when none.
QAction* FindCommand(const QMenu& menu, std::string_view command);
// A flyout: a small button that opens a menu of the given entries at once.
// The button carries the view id and the help key.
QToolButton* MakeFlyout(QWidget* parent, std::string_view viewId,
                        const std::vector<CMenuItem>& items, std::string_view helpKey = {});

}  // namespace Velmo
