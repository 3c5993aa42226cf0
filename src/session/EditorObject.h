#pragma once

#include <cstdint>

#include "session/PFilterComponents.h"

// The contract between the filter module and the editor's own shared object
// (libcurvana_editor.so, beside the module). The editor and the UI framework
// live there so that a silent apply never loads Qt; the module opens the
// object only when a dialog is shown and reaches the editor through PEditor.
//
// Both objects link libcurvana_engine.so for everything below the editor, so
// the session the editor works on is the module's own: one PFilter, one
// translation table, one of every layer's globals. C++ types cross this
// boundary only as the engine's own classes, which both sides share.

namespace Project {

// The file name of the editor object, looked for in the module's folder.
inline constexpr const char* kEditorObjectName = "libcurvana_editor.so";
// The object's only exported symbol, of type CurvanaEditorFactory.
inline constexpr const char* kEditorFactorySymbol = "CurvanaCreateEditor";
// Raised whenever PEditor, PFilter or this contract change incompatibly; an
// object of another version is refused with a message.
inline constexpr uint32_t kEditorInterfaceVersion = 2;

}  // namespace Project

extern "C" {
// Makes a new editor, owned by the caller (destroyed through PEditor's virtual
// destructor, before the object is closed). Null when interfaceVersion is not
// the object's own or the editor cannot be made; never throws.
typedef Project::PEditor* (*CurvanaEditorFactory)(uint32_t interfaceVersion);
}
