#include "editor/PConstraintClipboard.h"

#include "constraints/ConstraintFile.h"
#include "core/LocalizedString.h"

namespace Project {

std::vector<uint8_t> ConstraintClipboardBytes(const std::vector<const Constraint*>& constraints,
                                              const ConstraintFileContext& photo) {
    ConstraintSet set;
    for (const Constraint* c : constraints)
        if (c)
            set.Add(c->Clone());
    return writeConstraintData(set, photo);
}

bool ReadConstraintClipboard(std::span<const uint8_t> bytes, const ConstraintFileContext& photo,
                             ConstraintSet::List& out, std::string& message) {
    out.clear();
    SimpleConstraintFileContext scratch = SimpleConstraintFileContext::SnapshotOf(photo);
    ConstraintSet set;
    if (bytes.empty() || !readConstraintData(set, scratch, bytes)) {
        const std::string_view reason = set.Message().empty()
                                            ? constraint_message::kInvalidFileContent
                                            : std::string_view(set.Message());
        message =
            localizeConstraintMessage(reason, [](std::string_view key) { return Localize(key); });
        while (!message.empty() && message.back() == '\n')
            message.pop_back();
        return false;
    }
    std::vector<int32_t> ids;
    for (const auto& c : set.Constraints())
        ids.push_back(c->GetId());
    for (const int32_t id : ids)
        out.push_back(set.Remove(id));
    return true;
}

}  // namespace Project
