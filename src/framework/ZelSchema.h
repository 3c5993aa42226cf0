#pragma once

#include <optional>

#include "framework/ZelDocument.h"

namespace Velmo {

// Checks a parsed Zel tree against the element kinds and properties that the
// loader knows (ZelFormat.md lists them): unknown kinds and properties, values
// of the wrong type or out of range, children where none may be, a view id
// used twice, and the structural rules (window only at the root, a scroller
// holding one image pane). Returns the first problem, or nothing. Needs no Qt.
std::optional<CZelError> ValidateZel(const CZelNode& root);

// Whether an element of this kind holds other elements.
bool IsZelContainer(std::string_view kind);

}  // namespace Velmo
