#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "constraints/Constraint.h"

namespace Project {

// The constraints drawn on one photo, owned by the filter session, in the
// order in which they were added (also the order of a constraint file's
// records). Besides the list it carries the outcome of the last file or data
// read (success flag and message text), the set word (StateWord), the saved
// marker, and the editor's selection, highlight and fit point.
class ConstraintSet {
public:
    using List = std::vector<std::unique_ptr<Constraint>>;

    ConstraintSet() = default;
    ConstraintSet(const ConstraintSet&) = delete;
    ConstraintSet& operator=(const ConstraintSet&) = delete;

    // --- The list.
    const List& Constraints() const { return list_; }
    size_t Size() const { return list_.size(); }
    bool Empty() const { return list_.empty(); }
    Constraint* At(size_t index) const { return list_[index].get(); }
    Constraint* Find(int32_t id) const;
    // Index in the list of the constraint with `id`, or -1.
    int32_t IndexOf(int32_t id) const;

    // Appends a constraint and returns its identifier. A constraint that
    // comes with an identifier not used in the list keeps it (undo and redo
    // re-add copies that way); one with -1, or with an identifier already in
    // use, gets the next unused identifier. Identifiers are never reused
    // within a set's life (the counter only grows).
    int32_t Add(std::unique_ptr<Constraint> constraint);
    // Removes and returns the constraint with `id` (null when absent). The
    // selection keeps its identifiers (see RepairSelection).
    std::unique_ptr<Constraint> Remove(int32_t id);
    // Empties the list, the selection and the highlight.
    void Clear();
    // Replaces the whole list (Clear, then Add of each in order).
    void Replace(List constraints);

    // The topmost constraint (the last one in list order) that `point` hits,
    // or null.
    Constraint* HitTest(PointF point, float tolerance, bool displaySpace) const;

    // Serialised payload bytes of all constraints (each constraint's
    // PayloadSize; tags and header not included).
    uint64_t PayloadBytes() const;

    // --- Selection: a list of identifiers.
    const std::vector<int32_t>& Selection() const { return selection_; }
    void SetSelection(std::vector<int32_t> ids) { selection_ = std::move(ids); }
    // Makes `id` the whole selection.
    void Select(int32_t id) { selection_ = {id}; }
    void AddToSelection(int32_t id);
    void Deselect(int32_t id);
    void ClearSelection() { selection_.clear(); }
    bool IsSelected(int32_t id) const;
    // The first constraint of the list whose identifier is in the selection.
    Constraint* Selected() const;
    // The first selected identifier that still names a constraint becomes
    // the whole selection; when none does the selection is left as it is.
    void RepairSelection();

    // --- Editor state kept with the list.
    // Identifier of the constraint under the pointer, -1 for none.
    int32_t Highlight() const { return highlight_; }
    void SetHighlight(int32_t id) { highlight_ = id; }
    // The focal-calibration point in source pixels; (-1, -1) means none.
    PointF FitPoint() const { return fitPoint_; }
    void SetFitPoint(PointF p) { fitPoint_ = p; }
    void ResetFitPoint() { fitPoint_ = {-1.0f, -1.0f}; }
    bool HasFitPoint() const { return !(fitPoint_.x == -1.0f && fitPoint_.y == -1.0f); }

    // --- Outcome of the last read.
    // The message text: localisable keys ("$$$/Curvana/...=English text"),
    // possibly followed by a value, lines joined with "\n". Empty when there
    // is nothing to tell. See localizeConstraintMessage.
    bool Success() const { return success_; }
    void SetSuccess(bool success) { success_ = success; }
    const std::string& Message() const { return message_; }
    void ClearMessage() { message_.clear(); }
    void SetMessage(std::string text) { message_ = std::move(text); }

    // Records of the last successful read that made no constraint: one of
    // an unknown kind, and those read wrongly after it (such a record has no
    // length to be skipped by).
    uint32_t UnreadRecords() const { return unreadRecords_; }
    void SetUnreadRecords(uint32_t count) { unreadRecords_ = count; }

    // The set word: a 32-bit state word stored in and restored from
    // constraint files verbatim; its meaning belongs to the session (0 by
    // default).
    uint32_t StateWord() const { return stateWord_; }
    void SetStateWord(uint32_t word) { stateWord_ = word; }

    // The undo-stack position at the last save; 0 after a load (unsaved).
    int32_t SavedMarker() const { return savedMarker_; }
    void SetSavedMarker(int32_t marker) { savedMarker_ = marker; }

private:
    List list_;
    int32_t nextId_ = 1;
    std::vector<int32_t> selection_;
    int32_t highlight_ = -1;
    PointF fitPoint_{-1.0f, -1.0f};
    bool success_ = true;
    std::string message_;
    uint32_t unreadRecords_ = 0;
    uint32_t stateWord_ = 0;
    int32_t savedMarker_ = 0;
};

}  // namespace Project
