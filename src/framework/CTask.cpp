#include "framework/CTask.h"

#include <algorithm>

#include "core/LocalizedString.h"

namespace Velmo {

void CTaskStack::Push(std::unique_ptr<CTask> task) {
    if (!task)
        return;
    toggled_ = false;
    tasks_.erase(tasks_.begin() + static_cast<std::ptrdiff_t>(done_), tasks_.end());
    serials_.erase(serials_.begin() + static_cast<std::ptrdiff_t>(done_), serials_.end());
    const size_t capacity = std::max<size_t>(Capacity(), 1);
    while (tasks_.size() >= capacity) {
        baseSerial_ = serials_.front();
        tasks_.pop_front();
        serials_.pop_front();
    }
    tasks_.push_back(std::move(task));
    serials_.push_back(nextSerial_++);
    done_ = tasks_.size();
}

void CTaskStack::Undo() {
    toggled_ = false;
    if (!CanUndo())
        return;
    --done_;
    tasks_[done_]->Undo();
}

void CTaskStack::Redo() {
    toggled_ = false;
    if (!CanRedo())
        return;
    tasks_[done_]->Redo();
    ++done_;
}

void CTaskStack::ToggleLastState() {
    if (ToggleRedoes()) {
        Redo();
        return;
    }
    if (!CanUndo())
        return;
    Undo();
    toggled_ = true;
}

void CTaskStack::Clear() {
    baseSerial_ = Position();  // the state itself stays as it is
    tasks_.clear();
    serials_.clear();
    done_ = 0;
    toggled_ = false;
}

std::string CTaskStack::UndoLabel() const {
    if (const CTask* task = NextUndo())
        return Project::Localize(kUndoLabelKey, {Project::Localize(task->Name())});
    return Project::Localize(kCannotUndoKey);
}

std::string CTaskStack::RedoLabel() const {
    if (const CTask* task = NextRedo())
        return Project::Localize(kRedoLabelKey, {Project::Localize(task->Name())});
    return Project::Localize(kCannotRedoKey);
}

std::string CTaskStack::ToggleLabel() const {
    return ToggleRedoes() ? RedoLabel() : UndoLabel();
}

}  // namespace Velmo
