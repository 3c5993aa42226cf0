#include "framework/Widgets.h"

#include <QEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QLocale>
#include <QScrollBar>
#include <QSlider>
#include <QToolButton>
#include <algorithm>
#include <cmath>

#include "framework/CImagePane.h"
#include "framework/CTool.h"
#include "framework/Views.h"

namespace Velmo {

// ------------------------------------------------------------------ CSlider

CSlider::CSlider(QWidget* parent)
    : QWidget(parent), slider_(new QSlider(Qt::Horizontal, this)), field_(new QLineEdit(this)) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(slider_, 1);
    layout->addWidget(field_);
    setFocusProxy(field_);
    field_->setAlignment(Qt::AlignRight);
    field_->installEventFilter(this);
    QObject::connect(slider_, &QSlider::valueChanged, this, [this](int position) {
        if (showing_)
            return;
        const double span = setup_.maximum - setup_.minimum;
        UserSet(setup_.minimum + span * position / std::max(1, setup_.positions - 1));
    });
    QObject::connect(field_, &QLineEdit::editingFinished, this, [this] { TakeTyped(); });
    Configure(setup_);
}

void CSlider::Configure(const Setup& setup) {
    setup_ = setup;
    setup_.positions = std::max(2, setup_.positions);
    setup_.decimals = std::clamp(setup_.decimals, 0, 9);
    setup_.digits = std::max(1, setup_.digits);
    slider_->setRange(0, setup_.positions - 1);
    const QFontMetrics metrics(field_->font());
    field_->setFixedWidth(metrics.horizontalAdvance(QString(setup_.digits, QLatin1Char('0'))) + 12);
    SetRange(setup_.minimum, setup_.maximum);
}

void CSlider::SetRange(double minimum, double maximum) {
    if (!(maximum >= minimum))
        return;
    setup_.minimum = minimum;
    setup_.maximum = maximum;
    // The steps in slider stops, at least one stop each.
    const double perStop = (maximum - minimum) / (setup_.positions - 1);
    const auto stops = [perStop](double step) {
        return perStop > 0.0 ? std::max(1, static_cast<int>(std::lround(step / perStop))) : 1;
    };
    slider_->setSingleStep(stops(setup_.minorStep));
    slider_->setPageStep(stops(setup_.majorStep));
    value_ = Clamp(value_);
    Show();
}

double CSlider::Clamp(double value) const {
    const double scale = std::pow(10.0, setup_.decimals);
    const double rounded = std::round(value * scale) / scale;
    return std::clamp(rounded, setup_.minimum, setup_.maximum);
}

int CSlider::PositionFor(double value) const {
    const double span = setup_.maximum - setup_.minimum;
    if (!(span > 0.0))
        return 0;
    const double t = (std::clamp(value, setup_.minimum, setup_.maximum) - setup_.minimum) / span;
    return static_cast<int>(std::lround(t * (setup_.positions - 1)));
}

void CSlider::SetValue(double value) {
    if (!std::isfinite(value))
        return;
    value_ = Clamp(value);
    Show();
}

void CSlider::Show() {
    showing_ = true;
    slider_->setValue(PositionFor(value_));
    field_->setText(QLocale::c().toString(value_, 'f', setup_.decimals));
    showing_ = false;
}

void CSlider::TakeTyped() {
    bool ok = false;
    const double typed = QLocale::c().toDouble(field_->text().trimmed(), &ok);
    if (ok && std::isfinite(typed))
        UserSet(typed);
    else
        Show();  // back to the value it had
}

void CSlider::UserSet(double value) {
    const double next = Clamp(value);
    const bool changed = next != value_;
    value_ = next;
    Show();
    if (changed && listener_)
        listener_(value_);
}

bool CSlider::eventFilter(QObject* watched, QEvent* event) {
    if (watched != field_ || event->type() != QEvent::KeyPress)
        return false;
    const auto* key = static_cast<QKeyEvent*>(event);
    const bool major = key->modifiers() & Qt::ShiftModifier;
    const double step = major ? setup_.majorStep : setup_.minorStep;
    switch (key->key()) {
        case Qt::Key_Up:
            UserSet(value_ + step);
            return true;
        case Qt::Key_Down:
            UserSet(value_ - step);
            return true;
        case Qt::Key_PageUp:
            UserSet(value_ + setup_.majorStep);
            return true;
        case Qt::Key_PageDown:
            UserSet(value_ - setup_.majorStep);
            return true;
        case Qt::Key_Return:
        case Qt::Key_Enter:
            // Enter takes the typed value and stays in the field: it must not
            // reach the window, where it would press the default button.
            TakeTyped();
            field_->selectAll();
            return true;
        default:
            return false;
    }
}

// ------------------------------------------------------------------ CScroller

CScroller::CScroller(QWidget* parent)
    : QWidget(parent),
      horizontal_(new QScrollBar(Qt::Horizontal, this)),
      vertical_(new QScrollBar(Qt::Vertical, this)),
      gap_(new QWidget(this)) {
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(0);
    auto* bottom = new QHBoxLayout;
    bottom->setContentsMargins(0, 0, 0, 0);
    bottom->setSpacing(2);
    bottom->addWidget(gap_);
    bottom->addWidget(horizontal_, 1);
    grid->addLayout(bottom, 1, 0);
    grid->addWidget(vertical_, 0, 1);
    grid->setRowStretch(0, 1);
    grid->setColumnStretch(0, 1);
    auto* gapLayout = new QHBoxLayout(gap_);
    gapLayout->setContentsMargins(0, 0, 0, 0);
    gap_->hide();
    QObject::connect(horizontal_, &QScrollBar::valueChanged, this, [this](int value) {
        if (syncing_ || !pane_)
            return;
        pane_->SetOrigin(QPointF(pane_->Cushion() - value, pane_->Origin().y()));
    });
    QObject::connect(vertical_, &QScrollBar::valueChanged, this, [this](int value) {
        if (syncing_ || !pane_)
            return;
        pane_->SetOrigin(QPointF(pane_->Origin().x(), pane_->Cushion() - value));
    });
}

void CScroller::SetPane(CImagePane* pane) {
    pane_ = pane;
    if (!pane_)
        return;
    static_cast<QGridLayout*>(layout())->addWidget(pane_, 0, 0);
    pane_->SetViewListener([this] { SyncBars(); });
    SyncBars();
}

void CScroller::SetGapWidget(QWidget* widget) {
    if (!widget)
        return;
    gap_->layout()->addWidget(widget);
    gap_->show();
}

void CScroller::SyncBars() {
    if (!pane_)
        return;
    syncing_ = true;
    const QRectF image = pane_->ImageRect();
    const int cushion = pane_->Cushion();
    const auto sync = [cushion](QScrollBar* bar, double extent, double page, double origin) {
        const int content = static_cast<int>(std::ceil(extent)) + 2 * cushion;
        const int visible = std::max(1, static_cast<int>(page));
        bar->setRange(0, std::max(0, content - visible));
        bar->setPageStep(visible);
        bar->setSingleStep(std::max(1, visible / 20));
        bar->setValue(static_cast<int>(std::lround(cushion - origin)));
    };
    sync(horizontal_, image.width(), pane_->width(), image.left());
    sync(vertical_, image.height(), pane_->height(), image.top());
    syncing_ = false;
}

// ------------------------------------------------------------------ CToolGrid

CToolGrid::CToolGrid(CToolSet& set, const std::vector<std::string>& toolIds, int columns,
                     QWidget* parent)
    : QWidget(parent), set_(set), setAlive_(set.Lifetime()) {
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(2);
    columns = std::max(1, columns);
    int k = 0;
    for (const std::string& id : toolIds) {
        const CTool* tool = set.Find(id);
        if (!tool)
            continue;
        auto* button = new QToolButton(this);
        SetViewId(*button, id);
        SetHelpKey(*button, tool->HelpKey());
        button->setToolTip(Text(tool->TipKey()));
        button->setIcon(tool->Icon());
        button->setIconSize(QSize(24, 24));
        button->setCheckable(true);
        button->setAutoRaise(true);
        QObject::connect(button, &QToolButton::clicked, this, [this, id] {
            if (!setAlive_.expired())
                set_.Select(id);
            Follow();  // a click on the current tool must not uncheck it
        });
        grid->addWidget(button, k / columns, k % columns);
        ++k;
    }
    listener_ = set.AddListener([this](CTool*) { Follow(); });
    Follow();
}

CToolGrid::~CToolGrid() {
    if (!setAlive_.expired())
        set_.RemoveListener(listener_);
}

void CToolGrid::Follow() {
    const CTool* current = setAlive_.expired() ? nullptr : set_.Current();
    const QString currentId = current ? QString::fromStdString(current->ViewIdPath()) : QString();
    for (QToolButton* button : findChildren<QToolButton*>())
        button->setChecked(button->objectName() == currentId);
}

}  // namespace Velmo
