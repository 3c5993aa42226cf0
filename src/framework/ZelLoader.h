#pragma once

#include <QString>
#include <QWidget>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "framework/ZelDocument.h"

namespace Velmo {

class CImagePane;
class CToolSet;

// Instantiates Zel layouts (ZelFormat.md) as Qt widgets: every element with a
// view id becomes a widget of that object name (FindView finds it), texts are
// localised keys, sizes, fonts, slider ranges and steps are applied as
// written. Tool grids draw on the tool sets added here; image panes can be
// made by the application (its own CImagePane subclass) through a factory.
class CLayoutLoader {
public:
    using PaneFactory = std::function<std::unique_ptr<CImagePane>()>;

    void AddToolSet(CToolSet& set);
    // The image pane with this view id is made by `factory`.
    void SetPaneFactory(std::string viewId, PaneFactory factory);

    // Parses, checks and instantiates `text` into `target`, which must not have
    // a layout yet. A root "window" element gives its view id, title and
    // offset (property "velmoOffset") to the target itself. On failure `target`
    // is left as it was and `error` says what and where.
    bool Load(std::string_view text, QWidget& target, CZelError& error);
    // The same for a layout stored as a Qt resource (":/...") or a file.
    bool LoadResource(const QString& path, QWidget& target, CZelError& error);
    bool Instantiate(const CZelNode& root, QWidget& target, CZelError& error);

private:
    std::map<std::string, CToolSet*, std::less<>> toolSets_;
    std::map<std::string, PaneFactory, std::less<>> paneFactories_;
};

}  // namespace Velmo
