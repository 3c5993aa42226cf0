#pragma once

#include <memory>

#include "session/PFilterComponents.h"

namespace Project {

// The editor that the editor object serves: defined by the editor library
// (the dialog), or by a test double in the tests. Called on the host's thread
// when the module first needs the editor, before any QApplication exists:
// make widgets in Run, not here. The object's entry wraps the editor so that
// Run always finds a QApplication (see EditorEntry.cpp).
std::unique_ptr<PEditor> CreateDialogEditor();

}  // namespace Project
