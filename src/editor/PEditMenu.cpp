#include "editor/PEditMenu.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <span>
#include <vector>

#include "constraints/ConstraintSet.h"
#include "core/LocalizedString.h"
#include "editor/PConstraintClipboard.h"
#include "editor/PTasks.h"
#include "editor/PWorkspace.h"
#include "framework/Views.h"

namespace Project {

namespace {

QKeySequence ShortcutFor(PEditCommand command) {
    switch (command) {
        case PEditCommand::UndoRedo:
            return QKeySequence(Qt::CTRL | Qt::Key_Z);
        case PEditCommand::StepForward:
            return QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z);
        case PEditCommand::StepBackward:
            return QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_Z);
        case PEditCommand::Cut:
            return QKeySequence(Qt::CTRL | Qt::Key_X);
        case PEditCommand::Copy:
            return QKeySequence(Qt::CTRL | Qt::Key_C);
        case PEditCommand::Paste:
            return QKeySequence(Qt::CTRL | Qt::Key_V);
        case PEditCommand::Clear:
            return QKeySequence(Qt::Key_Delete);
        case PEditCommand::SelectAll:
            return QKeySequence(Qt::CTRL | Qt::Key_A);
        default:
            return {};
    }
}

std::string_view KeyOf(PEditCommand command) {
    return kEditMenuKeys[static_cast<size_t>(command)];
}

const QMimeData* ClipboardData() {
    const QClipboard* clipboard = QGuiApplication::clipboard();
    return clipboard ? clipboard->mimeData() : nullptr;
}

}  // namespace

PEditMenu::PEditMenu(PTaskStack& stack, PWorkspace& workspace)
    : stack_(stack),
      workspace_(workspace),
      menu_(std::make_unique<QMenu>(Velmo::Text(kEditMenuTitleKey))) {
    std::vector<Velmo::CMenuItem> items;
    for (size_t k = 0; k < kEditCommandCount; ++k) {
        const auto command = static_cast<PEditCommand>(k);
        // Separators between the history, clipboard and selection groups.
        if (command == PEditCommand::UndoRedo || command == PEditCommand::Cut ||
            command == PEditCommand::SelectAll)
            items.push_back({Velmo::kMenuSeparator});
        items.push_back({KeyOf(command), {}, ShortcutFor(command)});
    }
    size_t k = 0;
    for (QAction* action : Velmo::AddMenuItems(*menu_, items)) {
        if (action->isSeparator())
            continue;
        const auto command = static_cast<PEditCommand>(k);
        actions_[k++] = action;
        QObject::connect(action, &QAction::triggered, menu_.get(),
                         [this, command] { Run(command); });
    }
    QObject::connect(menu_.get(), &QMenu::aboutToShow, menu_.get(), [this] { Update(); });
    // Closed, every shortcut stays live; Run checks what is possible.
    QObject::connect(menu_.get(), &QMenu::aboutToHide, menu_.get(), [this] {
        for (QAction* action : actions_)
            action->setEnabled(true);
    });
}

PEditMenu::~PEditMenu() = default;

bool PEditMenu::HasSelection() const {
    const ConstraintSet& set = workspace_.Constraints();
    for (const int32_t id : set.Selection())
        if (set.Find(id))
            return true;
    return false;
}

bool PEditMenu::Enabled(PEditCommand command) const {
    switch (command) {
        case PEditCommand::Undo:
        case PEditCommand::StepBackward:
            return stack_.CanUndo();
        case PEditCommand::Redo:
        case PEditCommand::StepForward:
            return stack_.CanRedo();
        case PEditCommand::ToggleLastState:
        case PEditCommand::UndoRedo:
            return stack_.CanUndo() || stack_.ToggleRedoes();
        case PEditCommand::Cut:
        case PEditCommand::Copy:
        case PEditCommand::Clear:
            return HasSelection();
        case PEditCommand::Paste: {
            const QMimeData* data = ClipboardData();
            return data && data->hasFormat(QLatin1String(kConstraintMimeType));
        }
        case PEditCommand::SelectAll:
            return !workspace_.Constraints().Empty();
    }
    return false;
}

std::string PEditMenu::Label(PEditCommand command) const {
    switch (command) {
        case PEditCommand::Undo:
            return stack_.UndoLabel();
        case PEditCommand::Redo:
            return stack_.RedoLabel();
        case PEditCommand::UndoRedo:
            return stack_.ToggleLabel();
        default:
            return Localize(KeyOf(command));
    }
}

void PEditMenu::Update() {
    for (size_t k = 0; k < kEditCommandCount; ++k) {
        const auto command = static_cast<PEditCommand>(k);
        actions_[k]->setText(QString::fromStdString(Label(command)));
        actions_[k]->setEnabled(Enabled(command));
    }
}

bool PEditMenu::Run(PEditCommand command) {
    if (!Enabled(command))
        return false;
    switch (command) {
        case PEditCommand::Undo:
        case PEditCommand::StepBackward:
            stack_.Undo();
            break;
        case PEditCommand::Redo:
        case PEditCommand::StepForward:
            stack_.Redo();
            break;
        case PEditCommand::ToggleLastState:
        case PEditCommand::UndoRedo:
            stack_.ToggleLastState();
            break;
        case PEditCommand::Cut:
            CopySelection();
            DeleteSelection(KeyOf(PEditCommand::Cut));
            break;
        case PEditCommand::Copy:
            CopySelection();
            break;
        case PEditCommand::Paste:
            return PasteClipboard();
        case PEditCommand::Clear:
            DeleteSelection(KeyOf(PEditCommand::Clear));
            break;
        case PEditCommand::SelectAll: {
            ConstraintSet& set = workspace_.Constraints();
            std::vector<int32_t> ids;
            for (const auto& c : set.Constraints())
                ids.push_back(c->GetId());
            set.SetSelection(std::move(ids));
            workspace_.RedrawPreview();
            break;
        }
    }
    return true;
}

void PEditMenu::CopySelection() {
    const ConstraintSet& set = workspace_.Constraints();
    std::vector<const Constraint*> selected;
    // In list order, so a paste keeps their stacking.
    for (const auto& c : set.Constraints())
        if (set.IsSelected(c->GetId()))
            selected.push_back(c.get());
    const std::vector<uint8_t> bytes = ConstraintClipboardBytes(selected, workspace_.FileContext());
    auto data = std::make_unique<QMimeData>();
    data->setData(QLatin1String(kConstraintMimeType),
                  QByteArray(reinterpret_cast<const char*>(bytes.data()),
                             static_cast<qsizetype>(bytes.size())));
    // The clipboard takes ownership of the data.
    QGuiApplication::clipboard()->setMimeData(data.release());
}

void PEditMenu::DeleteSelection(std::string_view groupName) {
    ConstraintSet& set = workspace_.Constraints();
    std::vector<int32_t> ids;
    for (const auto& c : set.Constraints())
        if (set.IsSelected(c->GetId()))
            ids.push_back(c->GetId());
    if (ids.empty())
        return;
    auto group = std::make_unique<PConstraintGroupTask>(workspace_, std::string(groupName));
    {
        PWorkspace::ResolveBatch batch(workspace_);
        for (const int32_t id : ids) {
            // Recorded just before the removal, as a deletion always is.
            group->Add(std::make_unique<PDeleteConstraintTask>(workspace_, *set.Find(id)));
            workspace_.ConstraintRemoving(id);
            set.Remove(id);
        }
        set.ClearSelection();
        workspace_.RequestResolve();
    }
    stack_.Push(std::move(group));
}

bool PEditMenu::PasteClipboard() {
    const QMimeData* data = ClipboardData();
    if (!data)
        return false;
    const QByteArray bytes = data->data(QLatin1String(kConstraintMimeType));
    ConstraintSet::List pasted;
    std::string message;
    if (!ReadConstraintClipboard(std::span(reinterpret_cast<const uint8_t*>(bytes.constData()),
                                           static_cast<size_t>(bytes.size())),
                                 workspace_.FileContext(), pasted, message)) {
        workspace_.Alert(message);
        return false;
    }
    if (pasted.empty())
        return true;
    ConstraintSet& set = workspace_.Constraints();
    auto group =
        std::make_unique<PConstraintGroupTask>(workspace_, std::string(KeyOf(PEditCommand::Paste)));
    std::vector<int32_t> ids;
    {
        PWorkspace::ResolveBatch batch(workspace_);
        for (auto& constraint : pasted) {
            // A paste is a new constraint, wherever it was copied from.
            constraint->SetId(-1);
            const int32_t id = set.Add(std::move(constraint));
            ids.push_back(id);
            group->Add(std::make_unique<PAddConstraintTask>(workspace_, *set.Find(id)));
        }
        set.SetSelection(ids);
        workspace_.RequestResolve();
    }
    stack_.Push(std::move(group));
    return true;
}

}  // namespace Project
