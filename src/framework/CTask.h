#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

namespace Velmo {

// One undoable edit. A task is created by the code that made the edit and
// pushed onto a CTaskStack, which then owns it: pushing records an edit that
// has already been made, it does not perform it. The first Undo reverses
// the edit, Redo makes it again; the stack calls them alternately.
class CTask {
public:
    virtual ~CTask() = default;
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    // The localisable key of the name shown after "Undo" and "Redo"
    // ("$$$/Area/Name=English text").
    virtual std::string Name() const = 0;
    virtual void Undo() = 0;
    virtual void Redo() = 0;

protected:
    CTask() = default;
};

// The menu labels of the stack's commands.
inline constexpr std::string_view kUndoLabelKey = "$$$/Velmo/Tasks/UndoOp=Undo ^0";
inline constexpr std::string_view kRedoLabelKey = "$$$/Velmo/Tasks/RedoOp=Redo ^0";
inline constexpr std::string_view kCannotUndoKey = "$$$/Velmo/Tasks/CannotUndo=Cannot Undo";
inline constexpr std::string_view kCannotRedoKey = "$$$/Velmo/Tasks/CannotRedo=Cannot Redo";

// The history of tasks: a done side (undoable, newest on top) and an undone
// side (redoable). Rules:
// - Push puts a task on the done side and destroys every task of the undone
//   side (a new edit forks the history; the old future is gone).
// - At most Capacity() tasks are kept. A push that would exceed it destroys
//   the oldest task first, whose edit can then no longer be undone.
// - Undo moves the newest done task to the undone side and calls its Undo;
//   Redo does the reverse. Both do nothing on an empty side.
// - ToggleLastState flips between the current state and the one before it:
//   it undoes, and when called again straight away it redoes what it undid.
//   Any other command or push ends the toggle.
// Subclasses choose the capacity by overriding Capacity().
class CTaskStack {
public:
    static constexpr size_t kDefaultCapacity = 20;

    CTaskStack() = default;
    virtual ~CTaskStack() = default;
    CTaskStack(const CTaskStack&) = delete;
    CTaskStack& operator=(const CTaskStack&) = delete;

    // How many tasks the stack keeps (at least 1).
    virtual size_t Capacity() const { return kDefaultCapacity; }

    void Push(std::unique_ptr<CTask> task);
    bool CanUndo() const { return done_ > 0; }
    bool CanRedo() const { return done_ < tasks_.size(); }
    void Undo();
    void Redo();
    void ToggleLastState();
    // Destroys every task.
    void Clear();

    // Whether the next ToggleLastState redoes (it undid last time).
    bool ToggleRedoes() const { return toggled_ && CanRedo(); }

    // Tasks kept, and how many of them are on the done side.
    size_t Size() const { return tasks_.size(); }
    size_t DoneCount() const { return done_; }
    // The task the next Undo (Redo) would reverse (repeat), or null.
    const CTask* NextUndo() const { return CanUndo() ? tasks_[done_ - 1].get() : nullptr; }
    const CTask* NextRedo() const { return CanRedo() ? tasks_[done_].get() : nullptr; }

    // Localised menu labels: "Undo <name>" or "Cannot Undo", and so on.
    std::string UndoLabel() const;
    std::string RedoLabel() const;
    // The label of the toggle: what the next ToggleLastState does.
    std::string ToggleLabel() const;

    // A number naming the state the history is in: 0 before the first push,
    // and each push gives its state a new number; undo and redo return to the
    // numbers of earlier states. Comparing it with a number kept at a save
    // tells whether the document is as saved.
    int32_t Position() const { return done_ > 0 ? serials_[done_ - 1] : baseSerial_; }

private:
    std::deque<std::unique_ptr<CTask>> tasks_;
    std::deque<int32_t> serials_;  // parallel to tasks_
    size_t done_ = 0;
    int32_t nextSerial_ = 1;
    int32_t baseSerial_ = 0;  // the state below the oldest kept task
    bool toggled_ = false;
};

}  // namespace Velmo
