#include "editor/PPreferencesDialog.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QPainter>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>

#include "framework/Views.h"

namespace Project {

namespace {

using Velmo::Text;

constexpr std::string_view kTitle = "$$$/Curvana/Prefs/Dialog/Title=Curvana Preferences";
constexpr std::string_view kColorsGroup = "$$$/Curvana/Prefs/Dialog/Colors=Colours";
constexpr std::array<std::string_view, 6> kColorLabels = {
    "$$$/Curvana/Prefs/Dialog/ColorUnfixed=Lines:",
    "$$$/Curvana/Prefs/Dialog/ColorHorizontal=Horizontal lines:",
    "$$$/Curvana/Prefs/Dialog/ColorVertical=Vertical lines:",
    "$$$/Curvana/Prefs/Dialog/ColorFixed=Lines at a fixed angle:",
    "$$$/Curvana/Prefs/Dialog/ColorInvalid=Invalid constraints:",
    "$$$/Curvana/Prefs/Dialog/ColorMesh=Mesh:",
};
constexpr std::string_view kCorrectionGroup = "$$$/Curvana/Prefs/Dialog/Correction=Correction";
constexpr std::string_view kRegularizer = "$$$/Curvana/Prefs/Dialog/Regularizer=Regulariser:";
constexpr std::array<std::string_view, 4> kRegularizerItems = {
    "$$$/Curvana/TypeRegularizerModel/Stereographic=Stereographic",
    "$$$/Curvana/TypeRegularizerModel/Mercator=Mercator",
    "$$$/Curvana/TypeRegularizerModel/Panini=Panini",
    "$$$/Curvana/TypeRegularizerModel/Auto=Auto",
};
constexpr std::string_view kCropToContent =
    "$$$/Curvana/Prefs/Dialog/CropToContent=Crop to content (no empty border)";
constexpr std::string_view kLoupeGroup = "$$$/Curvana/Prefs/Dialog/Loupe=Detail";
constexpr std::string_view kLoupeSize = "$$$/Curvana/Prefs/Dialog/LoupeSize=Magnification:";
constexpr std::string_view kLoupeWhileDragging =
    "$$$/Curvana/Prefs/Dialog/LoupeWhileDragging=Show the detail while dragging";
constexpr std::string_view kRestore =
    "$$$/Curvana/Prefs/Dialog/RestoreFactory=Restore Factory Settings";

QIcon Swatch(uint32_t argb) {
    QPixmap pixmap(36, 14);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setPen(QColor(0, 0, 0, 160));
    p.setBrush(QColor::fromRgba(argb));
    p.drawRect(pixmap.rect().adjusted(0, 0, -1, -1));
    return QIcon(pixmap);
}

}  // namespace

PEditorPreferences PEditorPreferences::From(const PSettings& s) {
    PEditorPreferences p;
    p.colors = s.colors;
    p.regularizer = s.regularizerModel;
    p.cropToContent = s.s1 != 0;
    p.loupeSize = std::clamp(s.loupeSize, kMinLoupeSize, kMaxLoupeSize);
    p.showLoupeWhenDragging = s.showLoupeWhenDragging != 0;
    return p;
}

void PEditorPreferences::ApplyTo(PSettings& s) const {
    s.colors = colors;
    s.regularizerModel = regularizer;
    s.s1 = cropToContent ? 1 : 0;
    s.loupeSize = loupeSize;
    s.showLoupeWhenDragging = showLoupeWhenDragging ? 1 : 0;
}

PEditorPreferences PEditorPreferences::Factory() {
    return From(PSettings{});
}

PPreferencesDialog::PPreferencesDialog(const PEditorPreferences& values, QWidget* parent)
    : QDialog(parent) {
    setObjectName(QStringLiteral("Project/Preferences"));
    setWindowTitle(Text(kTitle));
    auto* layout = new QVBoxLayout(this);

    auto* colors = new QGroupBox(Text(kColorsGroup), this);
    auto* colorForm = new QFormLayout(colors);
    for (int k = 0; k < 6; ++k) {
        auto* button = new QPushButton(colors);
        button->setObjectName(QStringLiteral("Project/Preferences/Color%1").arg(k + 1));
        button->setIconSize(QSize(36, 14));
        connect(button, &QPushButton::clicked, this, [this, k] {
            const QColor chosen =
                QColorDialog::getColor(QColor::fromRgba(colors_[static_cast<size_t>(k)]), this,
                                       QString(), QColorDialog::DontUseNativeDialog);
            if (chosen.isValid()) {
                colors_[static_cast<size_t>(k)] = chosen.rgb();  // opaque, as the defaults
                ShowColor(k);
            }
        });
        colorButtons_[static_cast<size_t>(k)] = button;
        colorForm->addRow(Text(kColorLabels[static_cast<size_t>(k)]), button);
    }
    layout->addWidget(colors);

    auto* correction = new QGroupBox(Text(kCorrectionGroup), this);
    auto* correctionForm = new QFormLayout(correction);
    regularizer_ = new QComboBox(correction);
    regularizer_->setObjectName(QStringLiteral("Project/Preferences/Regularizer"));
    for (const std::string_view item : kRegularizerItems)
        regularizer_->addItem(Text(item));
    correctionForm->addRow(Text(kRegularizer), regularizer_);
    cropToContent_ = new QCheckBox(Text(kCropToContent), correction);
    cropToContent_->setObjectName(QStringLiteral("Project/Preferences/CropToContent"));
    correctionForm->addRow(cropToContent_);
    layout->addWidget(correction);

    auto* loupe = new QGroupBox(Text(kLoupeGroup), this);
    auto* loupeForm = new QFormLayout(loupe);
    loupeSize_ = new QSpinBox(loupe);
    loupeSize_->setObjectName(QStringLiteral("Project/Preferences/LoupeSize"));
    loupeSize_->setRange(kMinLoupeSize, kMaxLoupeSize);
    loupeSize_->setSingleStep(10);
    loupeSize_->setSuffix(QStringLiteral(" %"));
    loupeForm->addRow(Text(kLoupeSize), loupeSize_);
    loupeWhenDragging_ = new QCheckBox(Text(kLoupeWhileDragging), loupe);
    loupeWhenDragging_->setObjectName(QStringLiteral("Project/Preferences/LoupeWhileDragging"));
    loupeForm->addRow(loupeWhenDragging_);
    layout->addWidget(loupe);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    QPushButton* restore = buttons->addButton(Text(kRestore), QDialogButtonBox::ResetRole);
    restore->setObjectName(QStringLiteral("Project/Preferences/RestoreFactory"));
    connect(restore, &QPushButton::clicked, this,
            [this] { SetValues(PEditorPreferences::Factory()); });
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);

    SetValues(values);
}

void PPreferencesDialog::ShowColor(int index) {
    colorButtons_[static_cast<size_t>(index)]->setIcon(Swatch(colors_[static_cast<size_t>(index)]));
}

void PPreferencesDialog::SetValues(const PEditorPreferences& values) {
    colors_ = values.colors;
    for (int k = 0; k < 6; ++k)
        ShowColor(k);
    const auto model = static_cast<uint32_t>(values.regularizer);
    regularizer_->setCurrentIndex(model >= 1 && model <= 4 ? static_cast<int>(model) - 1 : 3);
    cropToContent_->setChecked(values.cropToContent);
    loupeSize_->setValue(values.loupeSize);
    loupeWhenDragging_->setChecked(values.showLoupeWhenDragging);
}

PEditorPreferences PPreferencesDialog::Values() const {
    PEditorPreferences p;
    p.colors = colors_;
    p.regularizer = static_cast<RegularizerModel>(regularizer_->currentIndex() + 1);
    p.cropToContent = cropToContent_->isChecked();
    p.loupeSize = loupeSize_->value();
    p.showLoupeWhenDragging = loupeWhenDragging_->isChecked();
    return p;
}

}  // namespace Project
