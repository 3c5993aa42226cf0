#include "framework/CTool.h"

#include <QFont>
#include <QPainter>
#include <QPixmap>
#include <algorithm>

#include "core/LocalizedString.h"
#include "framework/CCursors.h"
#include "framework/CImagePane.h"
#include "framework/ModifierFlags.h"

namespace Velmo {

CTool::CTool(std::string name, std::string viewId, std::string tipKey, std::string helpKey)
    : name_(std::move(name)),
      viewId_(std::move(viewId)),
      tipKey_(std::move(tipKey)),
      helpKey_(std::move(helpKey)) {}

QChar CTool::Shortcut() const {
    if (tipKey_.empty())
        return {};
    const QString tip = QString::fromStdString(Project::Localize(tipKey_)).trimmed();
    // "... (Z)": a single letter between the last pair of parentheses, which
    // end the text.
    if (tip.size() < 3 || !tip.endsWith(QLatin1Char(')')))
        return {};
    const qsizetype open = tip.lastIndexOf(QLatin1Char('('));
    if (open < 0 || tip.size() - open != 3)
        return {};
    const QChar letter = tip.at(open + 1);
    return letter.isLetter() ? letter.toUpper() : QChar();
}

std::string CTool::SpringTool(CImagePane&, CMouseEvent&) {
    return {};
}
void CTool::MouseDown(CImagePane&, const CMouseEvent&) {}
void CTool::MouseMoved(CImagePane&, const CMouseEvent&) {}
void CTool::AdjustCursor(CImagePane& pane, const CMouseEvent&) {
    pane.SetPaneCursor(CCursors::Get(CCursorKind::Arrow));
}
void CTool::ModifiersChanged(CImagePane&, uint32_t) {}
bool CTool::KeyDown(CImagePane&, const CKeyEvent&) {
    return false;
}
void CTool::Activate() {}
void CTool::Deactivate() {}
void CTool::Cancel() {}

QIcon CTool::Icon() const {
    // A plain button face with the shortcut letter; tools with a picture of
    // their own override this.
    QPixmap pixmap(24, 24);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QFont font = painter.font();
    font.setBold(true);
    font.setPixelSize(15);
    painter.setFont(font);
    painter.setPen(QColor(40, 40, 40));
    const QChar letter = Shortcut();
    painter.drawText(pixmap.rect(), Qt::AlignCenter,
                     letter.isNull() ? QStringLiteral("?") : QString(letter));
    painter.end();
    return QIcon(pixmap);
}

// ------------------------------------------------------------------ CToolSet

CToolSet::CToolSet(std::string viewId) : viewId_(std::move(viewId)) {}

CToolSet::~CToolSet() {
    if (current_)
        current_->Deactivate();
}

CTool* CToolSet::Add(std::unique_ptr<CTool> tool) {
    if (!tool || tool->ViewIdPath().empty() || Find(tool->ViewIdPath()) || FindByName(tool->Name()))
        return nullptr;
    tool->set_ = this;
    tools_.push_back(std::move(tool));
    CTool* added = tools_.back().get();
    if (!current_)
        Select(added->ViewIdPath());
    return added;
}

CTool* CToolSet::Find(std::string_view viewId) const {
    for (const auto& tool : tools_)
        if (tool->ViewIdPath() == viewId)
            return tool.get();
    return nullptr;
}

CTool* CToolSet::FindByName(std::string_view name) const {
    for (const auto& tool : tools_)
        if (tool->Name() == name)
            return tool.get();
    return nullptr;
}

bool CToolSet::Select(std::string_view viewId) {
    CTool* tool = Find(viewId);
    if (!tool)
        return false;
    if (tool == current_)
        return true;
    if (current_)
        current_->Deactivate();
    current_ = tool;
    current_->Activate();
    // Copied: a listener may remove itself.
    const auto listeners = listeners_;
    for (const auto& [handle, listener] : listeners)
        listener(current_);
    return true;
}

bool CToolSet::SelectByShortcut(QChar letter) {
    if (!letter.isLetter())
        return false;
    const QChar upper = letter.toUpper();
    for (const auto& tool : tools_)
        if (tool->Shortcut() == upper)
            return Select(tool->ViewIdPath());
    return false;
}

CTool* CToolSet::ActingTool(CImagePane& pane, CMouseEvent& event) const {
    CTool* tool = current_;
    // Each tool may be visited once, so a cycle of answers ends.
    std::vector<const CTool*> visited;
    while (tool && std::find(visited.begin(), visited.end(), tool) == visited.end()) {
        visited.push_back(tool);
        const std::string next = tool->SpringTool(pane, event);
        if (next.empty())
            break;
        CTool* other = Find(next);
        if (!other)
            break;
        tool = other;
    }
    return tool;
}

void CToolSet::MouseDown(CImagePane& pane, CMouseEvent event) {
    if (CTool* tool = ActingTool(pane, event))
        tool->MouseDown(pane, event);
}

void CToolSet::MouseMoved(CImagePane& pane, CMouseEvent event) {
    if (CTool* tool = ActingTool(pane, event)) {
        tool->MouseMoved(pane, event);
        tool->AdjustCursor(pane, event);
    }
}

void CToolSet::AdjustCursor(CImagePane& pane, CMouseEvent event) {
    if (CTool* tool = ActingTool(pane, event))
        tool->AdjustCursor(pane, event);
}

void CToolSet::ModifiersChanged(CImagePane& pane, uint32_t modifiers) {
    if (current_)
        current_->ModifiersChanged(pane, modifiers);
}

bool CToolSet::KeyDown(CImagePane& pane, const CKeyEvent& event) {
    if (current_ && current_->KeyDown(pane, event))
        return true;
    if (event.autoRepeat || (event.modifiers & (kModCommand | kModAlt)))
        return false;
    if (event.code < 0x20 || event.code > 0xFFFF)
        return false;
    return SelectByShortcut(QChar(static_cast<char16_t>(event.code)));
}

bool CToolSet::Forward(std::string_view viewId, CImagePane& pane, const CMouseEvent& event) {
    if (!Select(viewId))
        return false;
    current_->MouseDown(pane, event);
    return true;
}

int CToolSet::AddListener(std::function<void(CTool*)> listener) {
    const int handle = nextListener_++;
    listeners_.emplace_back(handle, std::move(listener));
    return handle;
}

void CToolSet::RemoveListener(int handle) {
    std::erase_if(listeners_, [handle](const auto& entry) { return entry.first == handle; });
}

}  // namespace Velmo
