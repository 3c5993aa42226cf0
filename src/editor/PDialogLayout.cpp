#include "editor/PDialogLayout.h"

// Registers the resources of this static library explicitly: a static
// initialiser alone may be dropped by the linker when nothing refers to it.
static void InitEditorLayouts() {
    Q_INIT_RESOURCE(editor_layouts);
}

namespace Project {

QString DialogLayoutPath(std::string_view name) {
    static const bool registered = [] {
        InitEditorLayouts();
        return true;
    }();
    (void)registered;
    return QStringLiteral(":/curvana/layouts/") +
           QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size()));
}

}  // namespace Project
