#include "framework/Views.h"

#include <QApplication>
#include <QEvent>
#include <QMenu>
#include <QToolButton>
#include <QVariant>

#include "core/LocalizedString.h"

namespace Velmo {

namespace {

constexpr const char* kHelpProperty = "velmoHelpKey";

bool CanTakeFocus(const QWidget* widget) {
    if (!widget)
        return false;
    const QWidget* target = widget->focusProxy() ? widget->focusProxy() : widget;
    return widget->isVisible() && widget->isEnabled() && target->isEnabled() &&
           target->focusPolicy() != Qt::NoFocus;
}

}  // namespace

QString Text(std::string_view key) {
    return QString::fromStdString(Project::Localize(key));
}

void SetViewId(QWidget& widget, std::string_view viewId) {
    widget.setObjectName(QString::fromUtf8(viewId.data(), static_cast<qsizetype>(viewId.size())));
}

QWidget* FindView(QWidget& root, std::string_view viewId) {
    if (viewId.empty())
        return nullptr;
    const QString name = QString::fromUtf8(viewId.data(), static_cast<qsizetype>(viewId.size()));
    if (root.objectName() == name)
        return &root;
    return root.findChild<QWidget*>(name);
}

QWidget* FindView(QWidget& root, CViewId viewId) {
    if (viewId == kNoView)
        return nullptr;
    const auto matches = [viewId](const QWidget* w) {
        const QByteArray name = w->objectName().toUtf8();
        return !name.isEmpty() &&
               ViewIdOf(std::string_view(name.constData(), static_cast<size_t>(name.size()))) ==
                   viewId;
    };
    if (matches(&root))
        return &root;
    for (QWidget* child : root.findChildren<QWidget*>())
        if (matches(child))
            return child;
    return nullptr;
}

QWidget* FocusView(QWidget& root, CViewId viewId, CViewId fallback) {
    for (const CViewId id : {viewId, fallback}) {
        QWidget* widget = FindView(root, id);
        if (CanTakeFocus(widget)) {
            widget->setFocus(Qt::OtherFocusReason);
            return widget;
        }
    }
    return nullptr;
}

void SetHelpKey(QWidget& widget, std::string_view helpKey) {
    widget.setProperty(kHelpProperty,
                       QString::fromUtf8(helpKey.data(), static_cast<qsizetype>(helpKey.size())));
}

std::string HelpKey(const QWidget& widget) {
    return widget.property(kHelpProperty).toString().toStdString();
}

// ------------------------------------------------------------------ CHelpLine

CHelpLine::CHelpLine(QWidget* parent, std::string defaultKey)
    : QLabel(parent), defaultKey_(std::move(defaultKey)) {
    ShowDefault();
}

CHelpLine::~CHelpLine() {
    if (window_ && qApp)
        qApp->removeEventFilter(this);
}

void CHelpLine::Watch(QWidget* window) {
    if (!window || window_ == window)
        return;
    if (!window_)
        qApp->installEventFilter(this);
    window_ = window;
}

void CHelpLine::showEvent(QShowEvent* event) {
    QLabel::showEvent(event);
    if (!window_)
        Watch(window());
}

void CHelpLine::ShowDefault() {
    setText(Text(defaultKey_));
}

void CHelpLine::ShowHelpFor(const QWidget* widget) {
    for (; widget; widget = widget->parentWidget()) {
        const std::string key = HelpKey(*widget);
        if (!key.empty()) {
            setText(Text(key));
            return;
        }
        if (widget == window_)
            break;
    }
    ShowDefault();
}

bool CHelpLine::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::Enter && event->type() != QEvent::Leave)
        return false;
    if (!watched->isWidgetType() || !window_)
        return false;
    auto* widget = static_cast<QWidget*>(watched);
    if (widget != window_ && !window_->isAncestorOf(widget))
        return false;
    if (event->type() == QEvent::Enter)
        ShowHelpFor(widget);
    else
        ShowHelpFor(widget == window_ ? nullptr : widget->parentWidget());
    return false;
}

// ------------------------------------------------------------------ menus

std::vector<QAction*> AddMenuItems(QMenu& menu, const std::vector<CMenuItem>& items) {
    std::vector<QAction*> actions;
    actions.reserve(items.size());
    for (const CMenuItem& item : items) {
        if (item.key == kMenuSeparator) {
            actions.push_back(menu.addSeparator());
            continue;
        }
        QAction* action = menu.addAction(Text(item.key));
        const std::string_view command =
            item.command.empty() ? Project::KeyPath(item.key) : item.command;
        action->setObjectName(
            QString::fromUtf8(command.data(), static_cast<qsizetype>(command.size())));
        if (!item.shortcut.isEmpty())
            action->setShortcut(item.shortcut);
        actions.push_back(action);
    }
    return actions;
}

QAction* FindCommand(const QMenu& menu, std::string_view command) {
    const QString name = QString::fromUtf8(command.data(), static_cast<qsizetype>(command.size()));
    for (QAction* action : menu.actions())
        if (action->objectName() == name)
            return action;
    return nullptr;
}

QToolButton* MakeFlyout(QWidget* parent, std::string_view viewId,
                        const std::vector<CMenuItem>& items, std::string_view helpKey) {
    // Parent-owned, as Qt widgets are: the menu belongs to the button.
    auto* button = new QToolButton(parent);
    SetViewId(*button, viewId);
    if (!helpKey.empty())
        SetHelpKey(*button, helpKey);
    button->setPopupMode(QToolButton::InstantPopup);
    button->setArrowType(Qt::RightArrow);
    button->setAutoRaise(true);
    auto* menu = new QMenu(button);
    AddMenuItems(*menu, items);
    button->setMenu(menu);
    return button;
}

}  // namespace Velmo
