#include "framework/ZelLoader.h"

#include <QApplication>
#include <QBoxLayout>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>
#include <vector>

#include "framework/CCursors.h"
#include "framework/CImagePane.h"
#include "framework/CTool.h"
#include "framework/Views.h"
#include "framework/Widgets.h"
#include "framework/ZelSchema.h"

namespace Velmo {

namespace {

QString ToQString(const std::string& s) {
    return QString::fromStdString(s);
}

class Builder {
public:
    Builder(const std::map<std::string, CToolSet*, std::less<>>& toolSets,
            const std::map<std::string, CLayoutLoader::PaneFactory, std::less<>>& factories)
        : toolSets_(toolSets), factories_(factories) {}

    // Builds `node` as a child of `parent`; null on failure.
    QWidget* Build(const CZelNode& node, QWidget* parent) {
        QWidget* widget = Make(node, parent);
        if (!widget)
            return nullptr;
        if (!node.viewId.empty())
            SetViewId(*widget, node.viewId);
        Common(node, *widget);
        return widget;
    }

    // Lays the children of a container into `layout`.
    bool Children(const CZelNode& node, QWidget* owner, QBoxLayout* layout) {
        for (const CZelNode& child : node.children) {
            QWidget* widget = Build(child, owner);
            if (!widget)
                return false;
            const int stretch = Int(child, "stretch", child.kind == "spacer" ? 1 : 0);
            layout->addWidget(widget, stretch);
        }
        return true;
    }

    QBoxLayout* Box(const CZelNode& node, QWidget* owner, bool defaultRow) {
        const CZelProperty* layoutName = node.Find("layout");
        const bool row = layoutName ? layoutName->value.text == "row" : defaultRow;
        auto* layout =
            new QBoxLayout(row ? QBoxLayout::LeftToRight : QBoxLayout::TopToBottom, owner);
        if (const CZelProperty* m = node.Find("margins")) {
            const int margin = static_cast<int>(m->value.number);
            layout->setContentsMargins(margin, margin, margin, margin);
        }
        if (const CZelProperty* s = node.Find("spacing"))
            layout->setSpacing(static_cast<int>(s->value.number));
        return layout;
    }

    bool ResolveBuddies(QWidget& root) {
        for (const auto& [label, node] : buddies_) {
            const std::string& id = node->Find("buddy")->value.text;
            QWidget* target = FindView(root, id);
            if (!target)
                return Fail(node->Find("buddy")->value.position,
                            "no view \"" + id + "\" to be the buddy");
            label->setBuddy(target);
        }
        return true;
    }

    const CZelError& Error() const { return error_; }

private:
    bool Fail(CZelPosition at, std::string message) {
        if (!failed_)
            error_ = {at, std::move(message)}, failed_ = true;
        return false;
    }

    static int Int(const CZelNode& node, std::string_view name, int fallback) {
        const CZelProperty* p = node.Find(name);
        return p ? static_cast<int>(p->value.number) : fallback;
    }
    static double Number(const CZelNode& node, std::string_view name, double fallback) {
        const CZelProperty* p = node.Find(name);
        return p ? p->value.number : fallback;
    }
    static bool Flag(const CZelNode& node, std::string_view name, bool fallback) {
        const CZelProperty* p = node.Find(name);
        return p ? p->value.flag : fallback;
    }
    static QString Localised(const CZelNode& node, std::string_view name) {
        const CZelProperty* p = node.Find(name);
        return p ? Text(p->value.text) : QString();
    }
    static QStringList Items(const CZelNode& node) {
        QStringList items;
        if (const CZelProperty* p = node.Find("items"))
            for (const CZelValue& item : p->value.items)
                items << Text(item.text);
        return items;
    }

    QWidget* Make(const CZelNode& node, QWidget* parent) {
        const std::string& kind = node.kind;
        if (kind == "row" || kind == "column" || kind == "window") {
            auto* pane = new QWidget(parent);
            QBoxLayout* layout = Box(node, pane, kind == "row");
            if (kind != "window") {
                // Nested panes sit flush inside their parent's margins.
                if (!node.Find("margins"))
                    layout->setContentsMargins(0, 0, 0, 0);
            }
            return Children(node, pane, layout) ? pane : nullptr;
        }
        if (kind == "group") {
            auto* group = new QGroupBox(Localised(node, "title"), parent);
            return Children(node, group, Box(node, group, false)) ? group : nullptr;
        }
        if (kind == "scroller") {
            auto* scroller = new CScroller(parent);
            for (const CZelNode& child : node.children) {
                QWidget* widget = Build(child, scroller);
                if (!widget)
                    return nullptr;
                if (child.kind == "imagepane")
                    scroller->SetPane(static_cast<CImagePane*>(widget));
                else
                    scroller->SetGapWidget(widget);
            }
            return scroller;
        }
        if (kind == "text") {
            auto* label = new QLabel(Localised(node, "text"), parent);
            if (const CZelProperty* align = node.Find("align")) {
                const std::string& a = align->value.text;
                label->setAlignment((a == "left"    ? Qt::AlignLeft
                                     : a == "right" ? Qt::AlignRight
                                                    : Qt::AlignHCenter) |
                                    Qt::AlignVCenter);
            }
            if (node.Find("buddy"))
                buddies_.emplace_back(label, &node);
            return label;
        }
        if (kind == "button") {
            auto* button = new QPushButton(Localised(node, "text"), parent);
            if (Flag(node, "default", false)) {
                button->setDefault(true);
                button->setAutoDefault(true);
            }
            button->setProperty("velmoCancel", Flag(node, "cancel", false));
            return button;
        }
        if (kind == "check") {
            auto* check = new QCheckBox(Localised(node, "text"), parent);
            check->setChecked(Flag(node, "checked", false));
            return check;
        }
        if (kind == "popup" || kind == "combo") {
            auto* combo = new QComboBox(parent);
            combo->setEditable(kind == "combo");
            combo->addItems(Items(node));
            return combo;
        }
        if (kind == "flyout") {
            std::vector<CMenuItem> items;
            if (const CZelProperty* p = node.Find("items"))
                for (const CZelValue& item : p->value.items)
                    items.push_back({item.text});
            return MakeFlyout(parent, node.viewId, items);
        }
        if (kind == "slider") {
            auto* slider = new CSlider(parent);
            CSlider::Setup setup;
            if (const CZelProperty* range = node.Find("range")) {
                setup.minimum = range->value.items[0].number;
                setup.maximum = range->value.items[1].number;
            }
            setup.positions = Int(node, "positions", setup.positions);
            setup.digits = Int(node, "digits", setup.digits);
            setup.decimals = Int(node, "decimals", setup.decimals);
            setup.minorStep = Number(node, "minorStep", setup.minorStep);
            setup.majorStep = Number(node, "majorStep", setup.majorStep);
            slider->Configure(setup);
            slider->SetValue(Number(node, "value", setup.minimum));
            return slider;
        }
        if (kind == "icon") {
            auto* label = new QLabel(parent);
            if (const CZelProperty* image = node.Find("image")) {
                QSize size(16, 16);
                if (const CZelProperty* s = node.Find("size"))
                    size = QSize(static_cast<int>(s->value.items[0].number),
                                 static_cast<int>(s->value.items[1].number));
                const QPixmap pixmap = DrawNamedIcon(ToQString(image->value.text), size);
                if (pixmap.isNull()) {
                    Fail(image->value.position, "no picture named \"" + image->value.text + "\"");
                    return nullptr;
                }
                label->setPixmap(pixmap);
            }
            return label;
        }
        if (kind == "imagepane") {
            std::unique_ptr<CImagePane> made;
            if (const auto it = factories_.find(node.viewId);
                it != factories_.end() && !node.viewId.empty())
                made = it->second();
            if (!made && factories_.contains(node.viewId) && !node.viewId.empty()) {
                Fail(node.position, "the factory for \"" + node.viewId + "\" made no image pane");
                return nullptr;
            }
            if (!made)
                made = std::make_unique<CImagePane>();
            // Qt's parent takes over from here.
            CImagePane* pane = made.release();
            pane->setParent(parent);
            if (const CZelProperty* range = node.Find("zoomRange"))
                pane->SetZoomRange(range->value.items[0].number, range->value.items[1].number);
            pane->SetCushion(Int(node, "cushion", pane->Cushion()));
            return pane;
        }
        if (kind == "toolgrid") {
            const auto set = toolSets_.find(node.viewId);
            if (set == toolSets_.end()) {
                Fail(node.position, "no tool set \"" + node.viewId + "\" was given to the loader");
                return nullptr;
            }
            std::vector<std::string> ids;
            for (const CZelValue& item : node.Find("tools")->value.items) {
                if (!set->second->Find(item.text)) {
                    Fail(item.position,
                         "the tool set \"" + node.viewId + "\" has no tool \"" + item.text + "\"");
                    return nullptr;
                }
                ids.push_back(item.text);
            }
            // The grid stands for its tools: its own name stays empty, so the
            // set's id may be used by several grids.
            auto* grid = new CToolGrid(*set->second, ids, Int(node, "columns", 1), parent);
            return grid;
        }
        if (kind == "helpline") {
            const CZelProperty* text = node.Find("text");
            return new CHelpLine(parent, text ? text->value.text : std::string());
        }
        if (kind == "spacer") {
            auto* spacer = new QWidget(parent);
            spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
            return spacer;
        }
        Fail(node.position, "unknown element kind \"" + kind + "\"");
        return nullptr;
    }

    void Common(const CZelNode& node, QWidget& widget) {
        if (node.kind == "toolgrid")
            widget.setObjectName(QString());
        if (const CZelProperty* p = node.Find("tip"))
            widget.setToolTip(Text(p->value.text));
        if (const CZelProperty* p = node.Find("help"))
            SetHelpKey(widget, p->value.text);
        if (const CZelProperty* p = node.Find("width"))
            widget.setFixedWidth(static_cast<int>(p->value.number));
        if (const CZelProperty* p = node.Find("height"))
            widget.setFixedHeight(static_cast<int>(p->value.number));
        if (const CZelProperty* p = node.Find("minWidth"))
            widget.setMinimumWidth(static_cast<int>(p->value.number));
        if (const CZelProperty* p = node.Find("minHeight"))
            widget.setMinimumHeight(static_cast<int>(p->value.number));
        if (const CZelProperty* p = node.Find("size"))
            widget.setFixedSize(static_cast<int>(p->value.items[0].number),
                                static_cast<int>(p->value.items[1].number));
        if (const CZelProperty* p = node.Find("minSize"))
            widget.setMinimumSize(static_cast<int>(p->value.items[0].number),
                                  static_cast<int>(p->value.items[1].number));
        if (const CZelProperty* p = node.Find("font"))
            widget.setFont(Font(p->value.text));
        if (Flag(node, "hidden", false))
            widget.setHidden(true);
        if (!Flag(node, "enabled", true))
            widget.setEnabled(false);
    }

    static QFont Font(const std::string& name) {
        QFont font = QApplication::font();
        const auto scale = [&font](double factor) {
            if (font.pointSizeF() > 0)
                font.setPointSizeF(font.pointSizeF() * factor);
            else
                font.setPixelSize(std::max(1, static_cast<int>(font.pixelSize() * factor)));
        };
        if (name == "mediumBold")
            font.setBold(true);
        if (name == "large")
            scale(1.25);
        if (name == "small")
            scale(0.85);
        return font;
    }

    const std::map<std::string, CToolSet*, std::less<>>& toolSets_;
    const std::map<std::string, CLayoutLoader::PaneFactory, std::less<>>& factories_;
    std::vector<std::pair<QLabel*, const CZelNode*>> buddies_;
    CZelError error_;
    bool failed_ = false;
};

}  // namespace

void CLayoutLoader::AddToolSet(CToolSet& set) {
    toolSets_[set.ViewIdPath()] = &set;
}

void CLayoutLoader::SetPaneFactory(std::string viewId, PaneFactory factory) {
    paneFactories_[std::move(viewId)] = std::move(factory);
}

bool CLayoutLoader::Load(std::string_view text, QWidget& target, CZelError& error) {
    const std::optional<CZelNode> root = ParseZel(text, error);
    return root && Instantiate(*root, target, error);
}

bool CLayoutLoader::LoadResource(const QString& path, QWidget& target, CZelError& error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = {{1, 1}, "cannot read the layout " + path.toStdString()};
        return false;
    }
    const QByteArray bytes = file.read(static_cast<qint64>(kZelMaxBytes) + 1);
    return Load(std::string_view(bytes.constData(), static_cast<size_t>(bytes.size())), target,
                error);
}

bool CLayoutLoader::Instantiate(const CZelNode& root, QWidget& target, CZelError& error) {
    if (const std::optional<CZelError> invalid = ValidateZel(root)) {
        error = *invalid;
        return false;
    }
    if (target.layout()) {
        error = {root.position, "the target widget already has a layout"};
        return false;
    }
    // Built apart from the target, so that a failure leaves it untouched.
    auto staging = std::make_unique<QWidget>();
    Builder builder(toolSets_, paneFactories_);
    QWidget* content = builder.Build(root, staging.get());
    if (!content || !builder.ResolveBuddies(*staging)) {
        error = builder.Error();
        return false;
    }
    auto* layout = new QVBoxLayout(&target);
    layout->setContentsMargins(0, 0, 0, 0);
    if (root.kind == "window") {
        // The window's own settings belong to the target.
        content->setObjectName(QString());
        if (!root.viewId.empty())
            SetViewId(target, root.viewId);
        if (const CZelProperty* title = root.Find("title"))
            target.setWindowTitle(Text(title->value.text));
        if (const CZelProperty* offset = root.Find("offset"))
            target.setProperty("velmoOffset",
                               QPoint(static_cast<int>(offset->value.items[0].number),
                                      static_cast<int>(offset->value.items[1].number)));
        if (const CZelProperty* resizable = root.Find("resizable");
            resizable && !resizable->value.flag)
            layout->setSizeConstraint(QLayout::SetFixedSize);
    }
    layout->addWidget(content);
    return true;
}

}  // namespace Velmo
