#include "constraints/ConstraintSet.h"

#include <algorithm>
#include <limits>

namespace Project {

Constraint* ConstraintSet::Find(int32_t id) const {
    const int32_t k = IndexOf(id);
    return k < 0 ? nullptr : list_[static_cast<size_t>(k)].get();
}

int32_t ConstraintSet::IndexOf(int32_t id) const {
    if (id < 0)
        return -1;
    for (size_t k = 0; k < list_.size(); ++k)
        if (list_[k]->GetId() == id)
            return static_cast<int32_t>(k);
    return -1;
}

int32_t ConstraintSet::Add(std::unique_ptr<Constraint> constraint) {
    if (!constraint)
        return -1;
    int32_t id = constraint->GetId();
    if (id < 0 || Find(id) != nullptr) {
        // Skip identifiers in use (only possible after the counter wrapped).
        while (Find(nextId_) != nullptr)
            nextId_ = nextId_ == std::numeric_limits<int32_t>::max() ? 1 : nextId_ + 1;
        id = nextId_;
        constraint->SetId(id);
    }
    if (id >= nextId_)
        nextId_ = id == std::numeric_limits<int32_t>::max() ? 1 : id + 1;
    list_.push_back(std::move(constraint));
    return id;
}

std::unique_ptr<Constraint> ConstraintSet::Remove(int32_t id) {
    const int32_t k = IndexOf(id);
    if (k < 0)
        return nullptr;
    std::unique_ptr<Constraint> c = std::move(list_[static_cast<size_t>(k)]);
    list_.erase(list_.begin() + k);
    if (highlight_ == id)
        highlight_ = -1;
    return c;
}

void ConstraintSet::Clear() {
    list_.clear();
    selection_.clear();
    highlight_ = -1;
}

void ConstraintSet::Replace(List constraints) {
    Clear();
    for (auto& c : constraints)
        Add(std::move(c));
}

Constraint* ConstraintSet::HitTest(PointF point, float tolerance, bool displaySpace) const {
    for (auto it = list_.rbegin(); it != list_.rend(); ++it)
        if ((*it)->HitTest(point, tolerance, displaySpace))
            return it->get();
    return nullptr;
}

uint64_t ConstraintSet::PayloadBytes() const {
    uint64_t total = 0;
    for (const auto& c : list_)
        total += c->PayloadSize();
    return total;
}

void ConstraintSet::AddToSelection(int32_t id) {
    if (!IsSelected(id))
        selection_.push_back(id);
}

void ConstraintSet::Deselect(int32_t id) {
    std::erase(selection_, id);
}

bool ConstraintSet::IsSelected(int32_t id) const {
    return std::find(selection_.begin(), selection_.end(), id) != selection_.end();
}

Constraint* ConstraintSet::Selected() const {
    for (const auto& c : list_)
        if (IsSelected(c->GetId()))
            return c.get();
    return nullptr;
}

void ConstraintSet::RepairSelection() {
    for (int32_t id : selection_) {
        if (Find(id) != nullptr) {
            selection_ = {id};
            return;
        }
    }
}

}  // namespace Project
