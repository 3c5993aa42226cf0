#include "session/StandIns.h"

#include "session/PFilter.h"

namespace Project {

PEditor::Result UnavailableEditor::Run(PFilter& filter, const char*, DialogPlacement&) {
    filter.alert("$$$/private/Curvana/Warning/NoEditor=The editor is not available in this build.");
    return Result::Cancel;
}

}  // namespace Project
