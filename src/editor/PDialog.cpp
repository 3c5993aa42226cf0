#include "editor/PDialog.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPushButton>
#include <QScreen>
#include <QToolButton>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"
#include "constraints/GeodesicLines.h"
#include "core/LocalizedString.h"
#include "editor/PConstraintDrawing.h"
#include "editor/PDialogLayout.h"
#include "editor/PDialogTexts.h"
#include "editor/PEditMenu.h"
#include "editor/PPreferencesDialog.h"
#include "editor/PPreviewPane.h"
#include "editor/PSettingsFields.h"
#include "framework/ModifierFlags.h"
#include "framework/Views.h"
#include "framework/Widgets.h"
#include "framework/ZelLoader.h"
#include "geometry/LensProfile.h"
#include "geometry/ProjectionFactory.h"
#include "render/RenderPlan.h"
#include "session/LineSuggestions.h"
#include "session/PFilter.h"
#include "session/PreferencesFile.h"

namespace Project {

using namespace dialog_text;
using Velmo::Text;

namespace {

// The preview keeps the photograph at up to this many pixels on its longer
// side: a 24-megapixel photograph keeps every pixel (the loupe shows them),
// a larger one is reduced by a whole factor.
constexpr int32_t kPreviewSourceSide = 6144;
// Show Mesh draws every this many lines of the sphere mesh.
constexpr int32_t kMeshStep = 8;
// The zoom list (the zoom combo's first entries, the steps of Zoom In/Out).
constexpr std::array<double, 15> kZoomLevels = {1.0 / 16, 1.0 / 8, 1.0 / 4, 1.0 / 3, 1.0 / 2,
                                                2.0 / 3,  1.0,     2.0,     3.0,     4.0,
                                                6.0,      8.0,     10.0,    12.0,    16.0};
constexpr int kZoomActualItem = 15;
constexpr int kZoomFitViewItem = 16;
constexpr int kZoomFitScreenItem = 17;

constexpr std::string_view kEscSave = "$$$/Curvana/Warning/EscAlertSave=Save";
constexpr std::string_view kEscDontSave = "$$$/Curvana/Warning/EscAlertDontSave=Don't Save";
constexpr std::string_view kEscCancel = "$$$/Curvana/Warning/EscAlertCancel=Cancel";

// The calibrated focal length's settings step.
constexpr std::string_view kFocalInPixel = "Project/Dialog/FocalLengthInPixel";

QString QStr(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QString Localized(std::string_view key, std::initializer_list<std::string_view> args = {}) {
    return QString::fromStdString(Localize(key, args));
}

// A field code whose undo changes what the warp is solved from.
bool NeedsSolve(uint32_t code) {
    using namespace settings_field;
    return code != kScale && code != kOffsets && code != kColors;
}

std::string ZoomText(double zoom) {
    const double percent = zoom * 100.0;
    const double rounded =
        percent >= 10.0 ? std::round(percent * 10.0) / 10.0 : std::round(percent * 100.0) / 100.0;
    QString text = QString::number(rounded, 'f', percent >= 10.0 ? 1 : 2);
    while (text.contains(QLatin1Char('.')) &&
           (text.endsWith(QLatin1Char('0')) || text.endsWith(QLatin1Char('.'))))
        text.chop(1);
    return text.toStdString();
}

// The correction settings of a workspace with its constraints, as the bytes
// of a constraint file: two workspaces are the same exactly when these are.
std::vector<uint8_t> WorkspaceBytes(const ConstraintSet& set, const PSettings& s,
                                    const ConstraintFileContext& photo) {
    SimpleConstraintFileContext context = SimpleConstraintFileContext::SnapshotOf(photo);
    context.settings = ConstraintFileSettingsOf(s);
    return writeConstraintData(set, context);
}

// Copies the correction (what shapes the picture) from one record to another,
// leaving the preferences (colours, loupe, solver) as they are.
void CopyCorrection(PSettings& to, const PSettings& from) {
    to.focalLength = from.focalLength;
    to.projectionModel = from.projectionModel;
    to.regularizerModel = from.regularizerModel;
    to.physicalFocalLength = from.physicalFocalLength;
    to.cropFactor = from.cropFactor;
    to.scale = from.scale;
    to.offsetX = from.offsetX;
    to.offsetY = from.offsetY;
}

}  // namespace

// ------------------------------------------------------------------ the file context

// The constraint file's view of the live session: the photo, the live
// settings, the projection decision and the fitting of loaded constraints.
class PDialog::LiveFileContext final : public ConstraintFileContext {
public:
    explicit LiveFileContext(PDialog& dialog) : dialog_(dialog) {}

    int32_t ImageWidth() const override { return dialog_.filter_.imageRect().Width(); }
    int32_t ImageHeight() const override { return dialog_.filter_.imageRect().Height(); }
    std::string CameraMake() const override { return dialog_.filter_.cameraMetadata().make; }
    std::string CameraModel() const override { return dialog_.filter_.cameraMetadata().model; }
    std::string LensModel() const override { return dialog_.filter_.cameraMetadata().lens; }

    ConstraintFileSettings Settings() const override {
        return ConstraintFileSettingsOf(dialog_.filter_.settings());
    }
    void SetPhysicalFocal(float mm) override { Live().physicalFocalLength = mm; }
    void SetCropFactor(float crop) override { Live().cropFactor = crop; }
    void SetFocalLength(float pixels) override { Live().focalLength = pixels; }
    void SetProjectionModel(ProjectionModel model) override { Live().projectionModel = model; }
    void SetRegularizerModel(RegularizerModel model) override { Live().regularizerModel = model; }
    void SetScale(int32_t scale) override { Live().scale = scale; }
    void SetOffsets(float x, float y) override {
        Live().offsetX = x;
        Live().offsetY = y;
    }
    void ChooseProjection(ProjectionModel previousModel) override {
        dialog_.DecideProjection(previousModel);
    }
    void SettingsChanged() override {
        dialog_.sceneDirty_ = true;
        lines_.reset();
    }
    GeodesicLines* Lines() override {
        // Fitted under the projection the settings now decide.
        const std::shared_ptr<const PreviewScene> scene =
            dialog_.filter_.warpPipeline().CapturePreviewScene(dialog_.filter_);
        if (!scene || !scene->photo || !scene->locator)
            return nullptr;
        lines_ = std::make_unique<GeodesicLines>(scene->photo, scene->locator);
        return lines_.get();
    }
    int32_t UndoPosition() const override { return dialog_.stack_.Position(); }

private:
    PSettings& Live() { return dialog_.filter_.settings(); }

    PDialog& dialog_;
    std::unique_ptr<GeodesicLines> lines_;
};

// ------------------------------------------------------------------ controls

struct PDialog::Controls {
    PPreviewPane* pane = nullptr;
    PLoupePane* loupe = nullptr;
    QComboBox* zoom = nullptr;
    QLabel* camera = nullptr;
    QLabel* lens = nullptr;
    QCheckBox* preview = nullptr;
    QCheckBox* showConstraints = nullptr;
    QCheckBox* showMesh = nullptr;
    QPushButton* ok = nullptr;
    QPushButton* cancel = nullptr;
    QComboBox* projection = nullptr;
    QToolButton* flyout = nullptr;
    QPushButton* suggest = nullptr;
    Velmo::CSlider* scale = nullptr;
    Velmo::CSlider* focal = nullptr;
    Velmo::CSlider* crop = nullptr;
    QCheckBox* asShot = nullptr;
    QWidget* solverPane = nullptr;
    QMenuBar* menuBar = nullptr;
    bool altAtClick = false;
};

// ------------------------------------------------------------------ construction

PDialog::PDialog(PFilter& filter, DialogPlacement& placement)
    : filter_(filter),
      placement_(placement),
      fileContext_(std::make_unique<LiveFileContext>(*this)),
      tools_(std::string(kToolSet)),
      ui_(std::make_unique<Controls>()) {
    set_ = filter_.constraints().LiveSet();
    if (!set_) {
        ownSet_ = std::make_unique<ConstraintSet>();
        set_ = ownSet_.get();
    }
    setModal(true);
    setSizeGripEnabled(true);
}

PDialog::~PDialog() {
    // The tool set deactivates its tool as it goes, after the controls: the
    // tools' calls find the dialog no longer built.
    built_ = false;
    // The preview's threads call back into this dialog: stop them first.
    preview_.reset();
    if (qApp)
        qApp->removeEventFilter(this);
    // Tasks refer to the workspace (this dialog).
    stack_.Clear();
}

PSettings& PDialog::Settings() {
    return filter_.settings();
}

const ConstraintFileContext& PDialog::FileContext() const {
    return *fileContext_;
}

void PDialog::RegisterTools() {
    // The Constraint tool comes first and is current when the dialog opens.
    auto manage = std::make_unique<PManageConstraintTool>(static_cast<PToolHost&>(*this));
    manageTool_ = manage.get();
    tools_.Add(std::move(manage));
    auto plane = std::make_unique<PPlaneTool>(static_cast<PToolHost&>(*this));
    planeTool_ = plane.get();
    tools_.Add(std::move(plane));
    tools_.Add(std::make_unique<PMoveImageTool>(static_cast<PContentMover&>(*this),
                                                std::string(kHandTool)));
    tools_.Add(std::make_unique<PHandTool>());
    tools_.Add(std::make_unique<PZoomTool>());
    // No button: reached by holding Shift over a constraint.
    tools_.Add(std::make_unique<PConstraintTypeTool>(static_cast<PToolHost&>(*this)));
}

bool PDialog::Build(const std::string& layoutResource, std::string& error) {
    RegisterTools();
    Velmo::CLayoutLoader loader;
    loader.AddToolSet(tools_);
    loader.SetPaneFactory(std::string(kPreviewPane), [this] {
        auto pane = std::make_unique<PPreviewPane>();
        ui_->pane = pane.get();
        return pane;
    });
    loader.SetPaneFactory(std::string(kLoupePane), [this] {
        auto loupe = std::make_unique<PLoupePane>();
        ui_->loupe = loupe.get();
        return loupe;
    });
    Velmo::CZelError zel;
    if (!loader.LoadResource(DialogLayoutPath(layoutResource), *this, zel)) {
        error = layoutResource + ": " + zel.ToString();
        return false;
    }
    if (!FindControls(error))
        return false;
    ui_->pane->SetToolSet(&tools_);

    // The view check boxes as the user left them (stored bytes).
    const PSettings& s = Settings();
    ui_->preview->setChecked(s.s10 != 0);
    ui_->showConstraints->setChecked(s.s11 != 0);
    ui_->showMesh->setChecked(s.s13 != 0);

    // The projection popup: four models, the third named by the metadata.
    ui_->projection->clear();
    for (const std::string_view item :
         {kFisheyeItem, kPerspectiveItem,
          filter_.cameraMetadata().isPanorama ? kPanoramaItem : kAutoItem, kFullSphericalItem})
        ui_->projection->addItem(Text(item));

    // The photo's metadata.
    const CameraMetadata& metadata = filter_.cameraMetadata();
    ui_->camera->setText(Localized(kCameraInfoText, {metadata.model, metadata.make}));
    ui_->lens->setText(Localized(kLensInfoText, {metadata.lens}));
    ui_->camera->setToolTip(ui_->camera->text());
    ui_->lens->setToolTip(ui_->lens->text());

    // The focal slider's range: around the photo's own focal length.
    const std::optional<std::pair<float, float>> asShot = MetadataFocal();
    const float f0 = std::clamp(asShot ? asShot->first : s.physicalFocalLength, kMinPhysicalFocalMm,
                                kMaxPhysicalFocalMm);
    focalRangeLow_ = std::max(kMinPhysicalFocalMm, std::floor(f0 / 4.0f));
    focalRangeHigh_ = std::min(kMaxPhysicalFocalMm, std::ceil(f0 * 4.0f));
    ui_->asShot->setEnabled(asShot.has_value());

    BuildMenus();
    ConnectControls();

    // The state to go back to (Reset).
    opening_ = std::make_unique<PSettings>(s);
    for (const auto& c : set_->Constraints())
        openingConstraints_.push_back(c->Clone());
    openingPosition_ = stack_.Position();

    built_ = true;
    RefreshControls();
    StartPreview();
    UpdateTitle();
    return true;
}

bool PDialog::FindControls(std::string& error) {
    const auto find = [&](std::string_view id, auto*& out) {
        using Target = std::remove_reference_t<decltype(*out)>;
        out = dynamic_cast<Target*>(Velmo::FindView(*this, id));
        if (!out && error.empty())
            error = "the layout has no suitable view \"" + std::string(id) + "\"";
    };
    find(kZoomCombo, ui_->zoom);
    find(kCameraInfo, ui_->camera);
    find(kLensInfo, ui_->lens);
    find(kPreviewCheck, ui_->preview);
    find(kShowConstraintsCheck, ui_->showConstraints);
    find(kShowMeshCheck, ui_->showMesh);
    find(kOkButton, ui_->ok);
    find(kCancelButton, ui_->cancel);
    find(kProjectionPopup, ui_->projection);
    find(kCorrectionFlyout, ui_->flyout);
    find(kSuggestButton, ui_->suggest);
    find(kScaleSlider, ui_->scale);
    find(kFocalSlider, ui_->focal);
    find(kCropSlider, ui_->crop);
    find(kAsShotCheck, ui_->asShot);
    find(kSolverInfoPane, ui_->solverPane);
    if (!ui_->pane && error.empty())
        error = "the layout has no preview pane";
    if (!ui_->loupe && error.empty())
        error = "the layout has no loupe";
    return error.empty();
}

void PDialog::BuildMenus() {
    auto* bar = new QMenuBar(this);
    Velmo::SetViewId(*bar, kMenuBar);
    layout()->setMenuBar(bar);
    ui_->menuBar = bar;

    QMenu* file = bar->addMenu(Text(kFileMenuTitle));
    Velmo::SetViewId(*file, kFileMenu);
    const auto fileActions = Velmo::AddMenuItems(
        *file, {{kFileLoad, {}, QKeySequence::Open}, {kFileSave, {}, QKeySequence::Save}});
    connect(fileActions[0], &QAction::triggered, this, [this] { LoadConstraints(); });
    connect(fileActions[1], &QAction::triggered, this, [this] { SaveConstraints(); });

    editMenu_ = std::make_unique<PEditMenu>(stack_, *this);
    Velmo::SetViewId(editMenu_->Menu(), kEditMenu);
    bar->addMenu(&editMenu_->Menu());

    QMenu* view = bar->addMenu(Text(kViewMenuTitle));
    Velmo::SetViewId(*view, kViewMenu);
    const auto viewActions =
        Velmo::AddMenuItems(*view, {{kZoomIn, {}, QKeySequence(Qt::CTRL | Qt::Key_Plus)},
                                    {kZoomOut, {}, QKeySequence(Qt::CTRL | Qt::Key_Minus)},
                                    {Velmo::kMenuSeparator},
                                    {kFitOnScreen, {}, QKeySequence(Qt::CTRL | Qt::Key_0)},
                                    {kFitInView, {}, QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_0)},
                                    {kActualPixels, {}, QKeySequence(Qt::CTRL | Qt::Key_1)}});
    // Ctrl with the = key is Ctrl + on keyboards where + needs Shift.
    viewActions[0]->setShortcuts(
        {QKeySequence(Qt::CTRL | Qt::Key_Plus), QKeySequence(Qt::CTRL | Qt::Key_Equal)});
    connect(viewActions[0], &QAction::triggered, this, [this] { ZoomIn(); });
    connect(viewActions[1], &QAction::triggered, this, [this] { ZoomOut(); });
    connect(viewActions[3], &QAction::triggered, this, [this] { FitOnScreen(); });
    connect(viewActions[4], &QAction::triggered, this, [this] { FitInView(); });
    connect(viewActions[5], &QAction::triggered, this, [this] { ActualPixels(); });

    // The correction flyout: preferences and the same two file commands.
    if (QMenu* flyout = ui_->flyout->menu()) {
        const auto action = [flyout](std::string_view key) {
            return Velmo::FindCommand(*flyout, KeyPath(key));
        };
        if (QAction* a = action(kFlyoutPreferences))
            connect(a, &QAction::triggered, this, [this] { ShowPreferences(); });
        if (QAction* a = action(kFlyoutLoad))
            connect(a, &QAction::triggered, this, [this] { LoadConstraints(); });
        if (QAction* a = action(kFlyoutSave))
            connect(a, &QAction::triggered, this, [this] { SaveConstraints(); });
        if (QAction* a = action(kFlyoutSuggest))
            connect(a, &QAction::triggered, this, [this] { SuggestLines(); });
    }
}

void PDialog::ConnectControls() {
    Controls& ui = *ui_;
    connect(ui.ok, &QPushButton::clicked, this, [this] { OkClicked(); });
    connect(ui.cancel, &QPushButton::clicked, this, [this] { CancelClicked(); });
    connect(ui.suggest, &QPushButton::clicked, this, [this] { SuggestLines(); });
    ui.cancel->installEventFilter(this);
    ui.cancel->setAutoDefault(false);

    connect(ui.projection, &QComboBox::activated, this,
            [this](int index) { ProjectionChosen(index); });
    ui.scale->SetListener([this](double value) {
        ChangeSetting(kScaleSlider, settings_field::kScale, [value](PSettings& s) {
            s.scale = static_cast<int32_t>(std::lround(value));
        });
    });
    ui.focal->SetListener([this](double value) {
        ChangeSetting(
            kFocalSlider, settings_field::kPhysicalFocalLength,
            [this, value](PSettings& s) { SetFocal(static_cast<float>(value), s.cropFactor); });
    });
    ui.crop->SetListener([this](double value) {
        ChangeSetting(kCropSlider, settings_field::kCropFactor, [this, value](PSettings& s) {
            SetFocal(s.physicalFocalLength, static_cast<float>(value));
        });
    });
    connect(ui.asShot, &QCheckBox::clicked, this, [this](bool checked) {
        if (checked)
            ApplyAsShot();
        else
            RefreshControls();  // unchecked only by moving a slider
    });

    connect(ui.preview, &QCheckBox::toggled, this, [this] {
        RequestPreview(false);
        ui_->pane->update();
    });
    connect(ui.showConstraints, &QCheckBox::toggled, this, [this] {
        ui_->pane->update();
        ui_->loupe->update();
    });
    connect(ui.showMesh, &QCheckBox::toggled, this, [this] { RequestPreview(false); });

    // The zoom combo: the list, and any percentage typed into it.
    connect(ui.zoom, &QComboBox::activated, this, [this](int index) {
        if (index >= 0 && index < static_cast<int>(kZoomLevels.size()))
            ZoomTo(kZoomLevels[static_cast<size_t>(index)]);
        else if (index == kZoomActualItem)
            ActualPixels();
        else if (index == kZoomFitViewItem)
            FitInView();
        else if (index == kZoomFitScreenItem)
            FitOnScreen();
        UpdateTitle();
    });
    ui.zoom->setInsertPolicy(QComboBox::NoInsert);
    if (QLineEdit* edit = ui.zoom->lineEdit()) {
        connect(edit, &QLineEdit::editingFinished, this, [this, edit] {
            // Only what the user typed: the field also finishes editing when
            // it merely loses the focus.
            if (!edit->isModified())
                return;
            edit->setModified(false);
            QString text = edit->text().trimmed();
            text.remove(QLatin1Char('%'));
            bool ok = false;
            const double percent = QLocale::c().toDouble(text.trimmed(), &ok);
            if (ok && percent > 0.0)
                ZoomTo(percent / 100.0);
            UpdateTitle();
        });
    }

    PPreviewPane& pane = *ui.pane;
    pane.AddViewListener([this] { ViewChanged(); });
    pane.SetResizeListener([this] { PaneResized(); });
    pane.SetPointerListener([this](std::optional<QPointF> at) { PointerMoved(at); });
    pane.SetOverlay([this](QPainter& painter) { PaintOverlay(painter); });
    ui.loupe->SetOverlay([this](QPainter& painter, const std::function<QPointF(QPointF)>& toPane) {
        if (!ui_->showConstraints->isChecked())
            return;
        PConstraintDrawing drawing(painter, *set_, Settings().colors, false,
                                   [&toPane](PointF p) { return toPane(QPointF(p.x, p.y)); });
        drawing.DrawAll();
    });
}

void PDialog::StartPreview() {
    const ImageRect rect = filter_.imageRect();
    fitting_ = true;  // the view still follows the pane
    ui_->pane->SetImageSize(QSizeF(rect.Width(), rect.Height()));
    fitting_ = false;
    source_ = ReadPreviewSource(filter_.Host(), kPreviewSourceSide);
    ui_->loupe->SetSource(source_, rect.Width(), rect.Height());
    ui_->loupe->ShowAt(QPointF(rect.Width() / 2.0, rect.Height() / 2.0),
                       std::clamp(Settings().loupeSize, kMinLoupeSize, kMaxLoupeSize) / 100.0);
    // Results come on the preview's renderer thread; they are shown on this
    // one (Qt drops the call when the dialog is gone, and the destructor
    // stops the preview before anything else).
    preview_ = std::make_unique<PPreview>(
        source_, rect.Width(), rect.Height(), [this](PreviewResult result) {
            auto shared = std::make_shared<const PreviewResult>(std::move(result));
            QMetaObject::invokeMethod(
                this, [this, shared] { PreviewArrived(shared); }, Qt::QueuedConnection);
        });
}

void PDialog::PlaceWindow() {
    const QScreen* screen = this->screen() ? this->screen() : QGuiApplication::primaryScreen();
    const QRect available = screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    QSize size(placement_.x2, placement_.y2);
    if (size.width() <= 0 || size.height() <= 0)
        size = QSize(std::min(1320, available.width() * 9 / 10),
                     std::min(880, available.height() * 9 / 10));
    size = size.expandedTo(minimumSizeHint());
    resize(size);
    // The placement's first point: the offset of the dialog's centre from
    // the screen's centre.
    const QPoint centre = available.center() + QPoint(placement_.x1, placement_.y1);
    move(centre - QPoint(size.width() / 2, size.height() / 2));
}

// ------------------------------------------------------------------ running

PEditor::Result PDialog::RunModal() {
    result_ = PEditor::Result::Cancel;
    exec();
    if (pendingError_)
        std::rethrow_exception(std::exchange(pendingError_, nullptr));
    return result_;
}

void PDialog::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    if (!placed_) {
        placed_ = true;
        PlaceWindow();
        qApp->installEventFilter(this);
        FocusDefaultControl();
    }
}

void PDialog::FinishWith(PEditor::Result result) {
    result_ = result;
    // What the user left on screen, for next time.
    PSettings& s = Settings();
    s.s10 = ui_->preview->isChecked() ? 1 : 0;
    s.s11 = ui_->showConstraints->isChecked() ? 1 : 0;
    s.s13 = ui_->showMesh->isChecked() ? 1 : 0;
    const QScreen* screen = this->screen();
    if (screen) {
        const QPoint offset = frameGeometry().center() - screen->availableGeometry().center();
        placement_.x1 = offset.x();
        placement_.y1 = offset.y();
    }
    placement_.x2 = width();
    placement_.y2 = height();
    done(result == PEditor::Result::Ok ? QDialog::Accepted : QDialog::Rejected);
}

void PDialog::OkClicked() {
    QApplication::setOverrideCursor(Qt::WaitCursor);
    bool rendered = false;
    try {
        rendered = filter_.renderFinal();
    } catch (...) {
        QApplication::restoreOverrideCursor();
        // The session's failure ends the invocation; it must not cross Qt's
        // event loop.
        pendingError_ = std::current_exception();
        FinishWith(PEditor::Result::Cancel);
        return;
    }
    QApplication::restoreOverrideCursor();
    if (rendered)
        FinishWith(PEditor::Result::Ok);
}

bool PDialog::HasChanges() const {
    if (!opening_)
        return false;
    ConstraintSet opening;
    for (const auto& c : openingConstraints_)
        opening.Add(c->Clone());
    return WorkspaceBytes(*set_, filter_.settings(), *fileContext_) !=
           WorkspaceBytes(opening, *opening_, *fileContext_);
}

void PDialog::reject() {
    // Escape or the window's close button.
    if (!HasChanges()) {
        FinishWith(PEditor::Result::Cancel);
        return;
    }
    QMessageBox box(QMessageBox::Warning, QString::fromStdString(PFilter::processName()),
                    Localized(kEscMain), QMessageBox::NoButton, this);
    box.setObjectName(QStringLiteral("Project/Dialog/EscAlert"));
    box.setInformativeText(Localized(kEscSub));
    QPushButton* save = box.addButton(Localized(kEscSave), QMessageBox::AcceptRole);
    QPushButton* dontSave = box.addButton(Localized(kEscDontSave), QMessageBox::DestructiveRole);
    QPushButton* cancel = box.addButton(Localized(kEscCancel), QMessageBox::RejectRole);
    save->setObjectName(QStringLiteral("Save"));
    dontSave->setObjectName(QStringLiteral("DontSave"));
    cancel->setObjectName(QStringLiteral("Cancel"));
    box.setDefaultButton(save);
    box.setEscapeButton(cancel);
    box.exec();
    if (box.clickedButton() == save)
        OkClicked();
    else if (box.clickedButton() == dontSave)
        FinishWith(PEditor::Result::Cancel);
}

void PDialog::keyPressEvent(QKeyEvent* event) {
    // A tool's letter switches tools wherever the focus is, except in a
    // field that takes text (which never passes the key on).
    const bool plain = !(event->modifiers() & (Qt::ControlModifier | Qt::AltModifier));
    if (plain && !event->isAutoRepeat() && !event->text().isEmpty() &&
        tools_.SelectByShortcut(event->text().at(0))) {
        event->accept();
        return;
    }
    QDialog::keyPressEvent(event);
}

bool PDialog::eventFilter(QObject* watched, QEvent* event) {
    switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease: {
            const auto* key = static_cast<QKeyEvent*>(event);
            bool alt = key->modifiers() & Qt::AltModifier;
            if (key->key() == Qt::Key_Alt)
                alt = event->type() == QEvent::KeyPress;
            if (alt != altDown_) {
                altDown_ = alt;
                UpdateCancelText();
            }
            break;
        }
        case QEvent::MouseButtonPress:
        case QEvent::MouseButtonRelease:
            if (watched == ui_->cancel) {
                const auto* mouse = static_cast<QMouseEvent*>(event);
                ui_->altAtClick = (mouse->modifiers() & Qt::AltModifier) != 0;
            }
            break;
        case QEvent::WindowDeactivate:
            if (watched == this && altDown_) {
                altDown_ = false;
                UpdateCancelText();
            }
            break;
        default:
            break;
    }
    return QDialog::eventFilter(watched, event);
}

// ------------------------------------------------------------------ settings

void PDialog::ChangeSetting(std::string_view viewId, uint32_t fieldCode,
                            const std::function<void(PSettings&)>& change) {
    if (updatingControls_)
        return;
    const PSettings before = Settings();
    change(Settings());
    PushSettingsStep(before, viewId, fieldCode);
}

void PDialog::PushSettingsStep(const PSettings& before, std::string_view viewId,
                               uint32_t fieldCode) {
    stack_.Push(std::make_unique<PSettingsTask>(*this, before, Velmo::ViewIdOf(viewId), fieldCode));
    if (NeedsSolve(fieldCode))
        sceneDirty_ = true;
    RefreshControls();
    RequestPreview(sceneDirty_);
}

float PDialog::FocalPixels(float physical, float crop) const {
    const ImageRect rect = filter_.imageRect();
    const auto longSide = static_cast<float>(std::max(rect.Width(), rect.Height()));
    return crop * physical * longSide / 36.0f;
}

void PDialog::SetFocal(float physical, float crop) {
    PSettings& s = Settings();
    s.physicalFocalLength = std::clamp(physical, kMinPhysicalFocalMm, kMaxPhysicalFocalMm);
    s.cropFactor = std::max(crop, 0.1f);
    s.focalLength = FocalPixels(s.physicalFocalLength, s.cropFactor);
}

std::optional<std::pair<float, float>> PDialog::MetadataFocal() const {
    // As the session reads it (PFilter::focalFromMetadata), without storing.
    const CameraMetadata& metadata = filter_.cameraMetadata();
    const float physical = metadata.focalLength;
    float crop = metadata.cropFactor();
    const float equivalent = metadata.equivalentFocalLength();
    if (physical <= 0.0f || crop < 0.1f) {
        if (!(equivalent > 0.0f))
            return std::nullopt;
        if (crop < 0.1f)
            crop = 1.0f;
        return std::pair{equivalent / crop, crop};
    }
    return std::pair{physical, crop};
}

void PDialog::ApplyAsShot() {
    const std::optional<std::pair<float, float>> asShot = MetadataFocal();
    if (!asShot) {
        RefreshControls();
        return;
    }
    ChangeSetting(kAsShotCheck, settings_field::kPhysicalFocalLength,
                  [this, asShot](PSettings&) { SetFocal(asShot->first, asShot->second); });
}

void PDialog::ProjectionChosen(int index) {
    if (updatingControls_ || index < 0)
        return;
    const auto model = static_cast<ProjectionModel>(index + 1);
    const PSettings before = Settings();
    if (model == before.projectionModel)
        return;
    Settings().projectionModel = model;
    DecideProjection(before.projectionModel);
    if (Settings().projectionModel == before.projectionModel) {
        RefreshControls();
        return;
    }
    PushSettingsStep(before, kProjectionPopup, settings_field::kProjectionModel);
}

void PDialog::DecideProjection(ProjectionModel fallback) {
    PSettings& s = Settings();
    const ProjectionModel wanted = s.projectionModel;
    const ImageRect rect = filter_.imageRect();
    deciding_ = true;
    // The reasons are shown here, in the dialog, rather than through the
    // host, whose alerts may not reach the user while the dialog is open.
    if (wanted == ProjectionModel::FullSpherical &&
        !isFullSphericalAspect(rect.Width(), rect.Height())) {
        s.projectionModel = fallback;
        deciding_ = false;
        Alert(kInvalidFullSphericalRatioKey);
        return;
    }
    filter_.chooseProjection(fallback, ProjectionDecision::Keep, false);
    deciding_ = false;
    if (wanted == ProjectionModel::Auto && s.projectionModel != ProjectionModel::Auto)
        Alert(kNoMatchedProfileKey);
}

void PDialog::RefreshProjection() {
    if (deciding_ || !built_)
        return;
    sceneDirty_ = true;
    RefreshControls();
    RequestPreview(true);
}

void PDialog::UpdateFocalRange() {
    const float value = Settings().physicalFocalLength;
    ui_->focal->SetRange(std::min(focalRangeLow_, std::floor(value)),
                         std::max(focalRangeHigh_, std::ceil(value)));
}

void PDialog::RefreshControls() {
    if (!built_)
        return;
    updatingControls_ = true;
    const PSettings& s = Settings();
    const auto model = static_cast<uint32_t>(s.projectionModel);
    ui_->projection->setCurrentIndex(model >= 1 && model <= 4 ? static_cast<int>(model) - 1 : 0);
    ui_->scale->SetValue(s.scale);
    UpdateFocalRange();
    ui_->focal->SetValue(s.physicalFocalLength);
    ui_->crop->SetValue(s.cropFactor);
    const std::optional<std::pair<float, float>> asShot = MetadataFocal();
    ui_->asShot->setChecked(asShot && std::abs(asShot->first - s.physicalFocalLength) < 0.005f &&
                            std::abs(asShot->second - s.cropFactor) < 0.005f);
    ui_->pane->SetMeshColor(DisplayColor(s.colors, PDisplayColor::Mesh));
    updatingControls_ = false;
    UpdateCancelText();
    ui_->pane->update();
    ui_->loupe->update();
}

void PDialog::SettingsChanging(const PSettings&, uint32_t fieldCode) {
    if (NeedsSolve(fieldCode))
        sceneDirty_ = true;
}

void PDialog::RedrawPreview() {
    RequestPreview(sceneDirty_);
    ui_->pane->update();
    ui_->loupe->update();
}

bool PDialog::FocusView(Velmo::CViewId view) {
    return Velmo::FocusView(*this, view) != nullptr;
}

void PDialog::FocusDefaultControl() {
    if (ui_->ok)
        ui_->ok->setFocus(Qt::OtherFocusReason);
}

void PDialog::Alert(std::string_view message) {
    const QString text = message.starts_with("$$$/") ? Localized(message) : QStr(message);
    QMessageBox box(QMessageBox::Warning, QString::fromStdString(PFilter::processName()), text,
                    QMessageBox::Ok, this);
    box.setObjectName(QStringLiteral("Project/Dialog/Alert"));
    box.exec();
}

void PDialog::ConstraintRemoving(int32_t id) {
    // A drag holds the constraint it works on (an undo by its shortcut can
    // come in the middle of one): it is abandoned first.
    if (built_ && ui_->pane->Tracker())
        ui_->pane->CancelTracking();
    if (set_->Highlight() == id)
        set_->SetHighlight(-1);
    if (manageTool_)
        manageTool_->Forget(id);
    if (planeTool_)
        planeTool_->Forget(id);
}

void PDialog::Resolve() {
    if (!built_)
        return;
    // Drawn at once through the warp shown; the new warp follows.
    if (displayReady_ && displayWarp_ && displayWarp_->lines)
        for (const auto& c : set_->Constraints())
            c->UpdateDisplay(*displayWarp_->lines, displaySpace_);
    sceneDirty_ = true;
    RequestPreview(true);
    RepaintPanes();
}

// ------------------------------------------------------------------ Cancel, Reset, Default

void PDialog::UpdateCancelText() {
    if (!ui_->cancel)
        return;
    const std::string_view key = !altDown_ ? kCancelText : HasChanges() ? kResetText : kDefaultText;
    ui_->cancel->setText(Text(key));
}

void PDialog::CancelClicked() {
    const bool alt =
        ui_->altAtClick || altDown_ || (QGuiApplication::keyboardModifiers() & Qt::AltModifier);
    ui_->altAtClick = false;
    if (!alt) {
        FinishWith(PEditor::Result::Cancel);
        return;
    }
    if (HasChanges())
        ResetToOpening();
    else
        RestoreDefaults();
}

void PDialog::PushWorkspaceChange(std::string nameKey, const PSettings& before,
                                  const std::vector<std::unique_ptr<Constraint>>& oldConstraints,
                                  Velmo::CViewId view) {
    auto group = std::make_unique<PConstraintGroupTask>(*this, std::move(nameKey));
    for (const auto& old : oldConstraints)
        group->Add(std::make_unique<PDeleteConstraintTask>(*this, *old));
    for (const auto& added : set_->Constraints())
        group->Add(std::make_unique<PAddConstraintTask>(*this, *added));
    group->Add(std::make_unique<PSettingsTask>(*this, before, view, settings_field::kAll));
    stack_.Push(std::move(group));
    sceneDirty_ = true;
    displayReady_ = false;
    RefreshControls();
    RequestPreview(true);
}

void PDialog::ResetToOpening() {
    const PSettings before = Settings();
    std::vector<std::unique_ptr<Constraint>> old;
    for (const auto& c : set_->Constraints())
        old.push_back(c->Clone());
    CopyCorrection(Settings(), *opening_);
    ConstraintSet::List restored;
    for (const auto& c : openingConstraints_)
        restored.push_back(c->Clone());
    for (const auto& c : old)
        ConstraintRemoving(c->GetId());
    set_->Replace(std::move(restored));
    PushWorkspaceChange(std::string(PSettingsTask::kName), before, old,
                        Velmo::ViewIdOf(kCancelButton));
}

void PDialog::RestoreDefaults() {
    const PSettings before = Settings();
    CopyCorrection(Settings(), PSettings(filter_.imageRect().Width()));
    // The factory correction: the model the metadata gives when defaults are
    // restored (decided on the 35 mm equivalent), the photo's own focal
    // length.
    deciding_ = true;
    filter_.chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Reset, false);
    Settings().focalLength = filter_.focalFromMetadata(true);
    deciding_ = false;
    PushSettingsStep(before, kCancelButton, settings_field::kAll);
}

// ------------------------------------------------------------------ constraint files

QString PDialog::ChooseConstraintFile(bool save) {
    QFileDialog chooser(this, Localized(save ? kSaveTitle : kLoadTitle));
    chooser.setObjectName(save ? QStringLiteral("Project/Dialog/SaveConstraintsFile")
                               : QStringLiteral("Project/Dialog/LoadConstraintsFile"));
    // Qt's own dialog: the same everywhere, and one a test can drive.
    chooser.setOption(QFileDialog::DontUseNativeDialog);
    chooser.setNameFilter(Localized(save ? kSaveFileType : kLoadFileType) +
                          QStringLiteral(" (*.cvc)"));
    chooser.setDefaultSuffix(QStringLiteral("cvc"));
    const QString folder = QString::fromStdString(Settings().path);
    if (!folder.isEmpty() && std::filesystem::is_directory(folder.toStdString()))
        chooser.setDirectory(folder);
    if (save) {
        chooser.setAcceptMode(QFileDialog::AcceptSave);
        chooser.setFileMode(QFileDialog::AnyFile);
        chooser.selectFile(Localized(kSaveDefaultName));
    } else {
        chooser.setAcceptMode(QFileDialog::AcceptOpen);
        chooser.setFileMode(QFileDialog::ExistingFile);
    }
    if (chooser.exec() != QDialog::Accepted || chooser.selectedFiles().isEmpty())
        return {};
    const QString chosen = chooser.selectedFiles().front();
    // The folder is remembered (the settings' path string).
    Settings().path = std::filesystem::path(chosen.toStdString()).parent_path().string();
    return chosen;
}

void PDialog::LoadConstraints() {
    if (!set_->Empty()) {
        const auto answer = QMessageBox::question(
            this, QString::fromStdString(PFilter::processName()), Localized(kLoadClearQuestion),
            QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes);
        if (answer != QMessageBox::Yes)
            return;
    }
    const QString file = ChooseConstraintFile(false);
    if (file.isEmpty())
        return;
    const PSettings before = Settings();
    std::vector<std::unique_ptr<Constraint>> old;
    for (const auto& c : set_->Constraints())
        old.push_back(c->Clone());
    loadConstraintFile(*set_, *fileContext_, std::filesystem::path(file.toStdString()));
    std::string message = localizeConstraintMessage(
        set_->Message(), [](std::string_view key) { return Localize(key); });
    // Messages end their last line too.
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    if (!set_->Success()) {
        // Nothing was changed: the workspace stays as it was.
        Alert(message);
        return;
    }
    for (const auto& c : old)
        ConstraintRemoving(c->GetId());
    PushWorkspaceChange(std::string(kLoadTaskName), before, old,
                        Velmo::ViewIdOf(kCorrectionFlyout));
    // Loaded, though some constraint could not be set up.
    if (!message.empty())
        Alert(message);
}

void PDialog::SaveConstraints() {
    const QString file = ChooseConstraintFile(true);
    if (file.isEmpty())
        return;
    const std::filesystem::path path(file.toStdString());
    if (!saveConstraintFile(*set_, *fileContext_, path.parent_path(), path.filename().string()))
        Alert(Localize(kSaveFailed, {path.string()}));
}

void PDialog::SuggestLines() {
    const std::shared_ptr<const PreviewScene> scene =
        filter_.warpPipeline().CapturePreviewScene(filter_);
    SuggestionCounts counts;
    if (scene && scene->photo) {
        struct BusyCursor {
            BusyCursor() { QGuiApplication::setOverrideCursor(Qt::WaitCursor); }
            ~BusyCursor() { QGuiApplication::restoreOverrideCursor(); }
        } busy;
        counts = AddSuggestedLines(filter_.Host(), *scene->photo, *set_, SuggestOptions{});
    }
    if (counts.ids.empty()) {
        Alert(kNoLinesFound);
        return;
    }
    auto group = std::make_unique<PConstraintGroupTask>(*this, std::string(kSuggestTaskName));
    {
        ResolveBatch batch(*this);
        for (const int32_t id : counts.ids)
            group->Add(std::make_unique<PAddConstraintTask>(*this, *set_->Find(id)));
        set_->SetSelection(counts.ids);
        RequestResolve();
    }
    stack_.Push(std::move(group));
}

void PDialog::ShowPreferences() {
    PPreferencesDialog dialog(PEditorPreferences::From(Settings()), this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    const PEditorPreferences chosen = dialog.Values();
    if (chosen == PEditorPreferences::From(Settings()))
        return;
    ChangeSetting(kPreferences, settings_field::kAll,
                  [&chosen](PSettings& s) { chosen.ApplyTo(s); });
    // Kept in the preferences file at once, so they hold for the next
    // photograph whatever this dialog ends with.
    chosen.ApplyTo(filter_.preferences().settings);
    if (const auto folder = filter_.preferencesFolder())
        SavePreferencesFile(*folder / PreferencesFileName(), filter_.preferences());
}

// ------------------------------------------------------------------ the preview

bool PDialog::previewOn() const {
    return ui_->preview && ui_->preview->isChecked();
}

PreviewView PDialog::CurrentView() const {
    const PPreviewPane& pane = *ui_->pane;
    const PSettings& s = filter_.settings();
    PreviewView view;
    view.paneWidth = pane.width();
    view.paneHeight = pane.height();
    view.zoom = pane.Zoom();
    view.left = -pane.Origin().x() / pane.Zoom();
    view.top = -pane.Origin().y() / pane.Zoom();
    view.framing = ViewFraming{s.scale, s.offsetX, s.offsetY, s.s1 != 0};
    view.corrected = previewOn();
    view.meshStep = ui_->showMesh->isChecked() ? kMeshStep : 0;
    return view;
}

void PDialog::RequestPreview(bool newScene) {
    if (!preview_ || !built_ || ui_->pane->width() <= 0 || ui_->pane->height() <= 0)
        return;
    if (newScene || sceneDirty_ || !scene_) {
        scene_ = filter_.warpPipeline().CapturePreviewScene(filter_);
        sceneDirty_ = false;
    }
    PreviewView view = CurrentView();
    if (!scene_)
        view.corrected = false;
    newestRequest_ = preview_->Request(scene_, view);
    ui_->pane->RequestMade();
}

void PDialog::PreviewArrived(std::shared_ptr<const PreviewResult> result) {
    if (!built_)
        return;
    const bool newest = result->id == newestRequest_;
    if (result->warp && result->view.corrected)
        UpdateDisplayCopies(*result);
    ui_->pane->ShowResult(result, newest);
    if (newest) {
        if (result->solveFailed)
            ui_->solverPane->show();
        else if (result->current && result->view.corrected)
            ui_->solverPane->hide();
    }
    const std::string failure = preview_ ? preview_->GpuFailure() : std::string();
    ui_->pane->SetMessage(failure.empty() ? QString() : Localized(kPreviewUnavailable, {failure}));
    ui_->loupe->update();
}

void PDialog::UpdateDisplayCopies(const PreviewResult& result) {
    const PreviewWarp& warp = *result.warp;
    if (!warp.lines || !warp.mesh)
        return;
    const ViewFraming& framing = result.view.framing;
    if (displayReady_ && result.warp == displayWarp_ &&
        framing.scalePercent == displayFraming_.scalePercent &&
        framing.offsetX == displayFraming_.offsetX && framing.offsetY == displayFraming_.offsetY &&
        framing.cropToContent == displayFraming_.cropToContent)
        return;
    const ImageRect rect = filter_.imageRect();
    const double w = rect.Width(), h = rect.Height();
    extent_ = ComputeMeshExtent(*warp.mesh);
    const ViewFrame frame = PictureFrame(*warp.mesh, rect.Width(), rect.Height(), framing);
    // The warp's output plane -> picture pixels, as the renderer frames it:
    // the render plane is the warp's with y turned upwards (RenderMesh.h), so
    // render y = -y and row = (frame.top - render y) * h / frame.height.
    displaySpace_.warped = true;
    displaySpace_.transform =
        Affine2D::ScaleOffset(w / frame.width, h / frame.height, -frame.left * w / frame.width,
                              frame.top * h / frame.height);
    for (const auto& constraint : set_->Constraints())
        constraint->UpdateDisplay(*warp.lines, displaySpace_);
    displayWarp_ = result.warp;
    displayFraming_ = framing;
    displayReady_ = true;
}

void PDialog::ViewChanged() {
    if (!built_)
        return;
    if (!fitting_)
        fitted_ = false;
    UpdateTitle();
    RequestPreview(false);
}

void PDialog::PaneResized() {
    if (fitted_)
        FitInView();
    else
        RequestPreview(false);
}

void PDialog::PointerMoved(std::optional<QPointF> at) {
    if (!at || !built_)
        return;
    if (ui_->pane->Tracker() && !Settings().showLoupeWhenDragging)
        return;
    MoveLoupe(ui_->pane->PaneToImage(*at));
}

void PDialog::MoveLoupe(QPointF picture) {
    if (!built_)
        return;
    const PSettings& s = Settings();
    const ImageRect rect = filter_.imageRect();
    if (picture.x() < 0 || picture.y() < 0 || picture.x() >= rect.Width() ||
        picture.y() >= rect.Height())
        return;
    PointF source;
    if (!PictureToSource(picture, source))
        return;
    ui_->loupe->ShowAt(QPointF(source.x, source.y),
                       std::clamp(s.loupeSize, kMinLoupeSize, kMaxLoupeSize) / 100.0);
}

bool PDialog::PictureToSource(QPointF picture, PointF& source) const {
    const PointF at{static_cast<float>(picture.x()), static_cast<float>(picture.y())};
    if (!previewOn()) {
        source = at;
        return true;
    }
    // The photograph's pixel under the point of the corrected picture.
    if (!displayReady_ || !displayWarp_ || !displayWarp_->lines)
        return false;
    return displayWarp_->lines->DisplayToSource(at, displaySpace_, source);
}

bool PDialog::UpdateDrawing(Constraint& constraint) {
    const GeodesicLines* lines =
        displayWarp_ && displayWarp_->lines ? displayWarp_->lines.get() : nullptr;
    if (!lines)
        return true;  // nothing solved yet: the solve will tell
    if (displayReady_)
        constraint.UpdateDisplay(*lines, displaySpace_);
    if (const LineConstraint* line = AsLine(constraint))
        return lines->FitArc(line->First(), line->Second()).fitted;
    if (const PlaneConstraint* plane = AsPlane(constraint)) {
        if (plane->VertexCount() < 3)
            return false;
        for (const PlaneVertex& v : plane->Vertices()) {
            SphereDirection unused;
            if (!lines->SourceToSphere({v.x, v.y}, unused))
                return false;
        }
    }
    return true;
}

void PDialog::ShowConstraints() {
    if (!built_)
        return;
    if (!ui_->showConstraints->isChecked())
        ui_->showConstraints->setChecked(true);
    RefreshControls();
}

void PDialog::RepaintPanes() {
    if (!built_)
        return;
    ui_->pane->update();
    ui_->loupe->update();
}

void PDialog::SetHoverText(const QString& text) {
    if (built_ && ui_->pane->toolTip() != text)
        ui_->pane->setToolTip(text);
}

QSizeF PDialog::SourceSize() const {
    const ImageRect rect = filter_.imageRect();
    return {static_cast<double>(rect.Width()), static_cast<double>(rect.Height())};
}

ProjectionModel PDialog::Projection() const {
    return filter_.settings().projectionModel;
}

std::pair<double, double> PDialog::FocalRangePixels() const {
    const PSettings& s = filter_.settings();
    const float low = std::min(focalRangeLow_, std::floor(s.physicalFocalLength));
    const float high = std::max(focalRangeHigh_, std::ceil(s.physicalFocalLength));
    return {FocalPixels(low, s.cropFactor), FocalPixels(high, s.cropFactor)};
}

void PDialog::SetCalibratedFocal(double pixels) {
    const PSettings before = Settings();
    PSettings& s = Settings();
    const ImageRect rect = filter_.imageRect();
    const double longSide = std::max(rect.Width(), rect.Height());
    s.focalLength = static_cast<float>(pixels);
    // The millimetres follow from the pixels (pixels = crop x mm x long side / 36).
    s.physicalFocalLength =
        std::clamp(static_cast<float>(pixels * 36.0 / (std::max(s.cropFactor, 0.1f) * longSide)),
                   kMinPhysicalFocalMm, kMaxPhysicalFocalMm);
    PushSettingsStep(before, kFocalInPixel, settings_field::kFocalLength);
}

void PDialog::PaintOverlay(QPainter& painter) {
    int drawn = 0;
    int invalid = 0;
    ui_->pane->setProperty("constraintsSelected", static_cast<int>(set_->Selection().size()));
    // The selected line shows its middle handle.
    for (const auto& c : set_->Constraints())
        if (LineConstraint* line = AsLine(*c))
            line->SetShowsMiddleHandle(set_->IsSelected(line->GetId()));
    if (ui_->showConstraints->isChecked() && (!previewOn() || displayReady_)) {
        const PPreviewPane& pane = *ui_->pane;
        PConstraintDrawing drawing(
            painter, *set_, Settings().colors, previewOn(),
            [&pane](PointF p) { return pane.ImageToPane(QPointF(p.x, p.y)); });
        drawing.DrawAll();
        drawn = drawing.Drawn();
        invalid = drawing.DrawnInvalid();
    }
    ui_->pane->setProperty("constraintsDrawn", drawn);
    ui_->pane->setProperty("constraintsDrawnInvalid", invalid);
    if (const auto* tool = dynamic_cast<const PTool*>(tools_.Current()))
        tool->PaintFeedback(painter, *ui_->pane);
}

void PDialog::UpdateTitle() {
    if (!ui_->pane)
        return;
    std::string name = filter_.Host().DocumentName();
    if (name.empty())
        name = Localize(kUntitled);
    const std::string zoom = ZoomText(ui_->pane->Zoom());
    setWindowTitle(Localized(kTitle, {name, zoom}));
    if (ui_->zoom && !(ui_->zoom->lineEdit() && ui_->zoom->lineEdit()->hasFocus()))
        ui_->zoom->setEditText(QString::fromStdString(zoom) + QLatin1Char('%'));
}

void PDialog::ZoomTo(double zoom) {
    ui_->pane->SetZoom(zoom);
}

void PDialog::StepZoom(int direction) {
    const double zoom = ui_->pane->Zoom();
    double next = zoom;
    if (direction > 0) {
        const auto it = std::find_if(kZoomLevels.begin(), kZoomLevels.end(),
                                     [zoom](double z) { return z > zoom * 1.001; });
        next = it != kZoomLevels.end() ? *it : kZoomLevels.back();
    } else {
        const auto it = std::find_if(kZoomLevels.rbegin(), kZoomLevels.rend(),
                                     [zoom](double z) { return z < zoom / 1.001; });
        next = it != kZoomLevels.rend() ? *it : kZoomLevels.front();
    }
    ZoomTo(next);
}

void PDialog::ZoomIn() {
    StepZoom(+1);
}

void PDialog::ZoomOut() {
    StepZoom(-1);
}

void PDialog::FitInView() {
    fitting_ = true;
    ui_->pane->FitInView();
    fitting_ = false;
    fitted_ = true;
}

void PDialog::FitOnScreen() {
    if (const QScreen* screen = this->screen())
        setGeometry(screen->availableGeometry());
    FitInView();
}

void PDialog::ActualPixels() {
    ZoomTo(1.0);
}

// ------------------------------------------------------------------ the Move tool

void PDialog::BeginMove() {
    moveStart_ = std::make_unique<PSettings>(Settings());
    movePerPane_ = QPointF();
    if (!extent_ || !previewOn())
        return;
    // One pane pixel is 1 / zoom picture pixels, each frame.width / W plane
    // units; an offset of 1 moves the frame by the travel (extent - frame).
    const ImageRect rect = filter_.imageRect();
    const PSettings& s = Settings();
    const ViewFrame frame = FitViewFrame(*extent_, rect.Width(), rect.Height(),
                                         ViewFraming{s.scale, s.offsetX, s.offsetY});
    const double unit = frame.width / static_cast<double>(rect.Width()) / ui_->pane->Zoom();
    const double travelX = static_cast<double>(extent_->Width()) - frame.width;
    const double travelY = static_cast<double>(extent_->Height()) - frame.height;
    movePerPane_ = QPointF(std::abs(travelX) > 1e-9 ? -unit / travelX : 0.0,
                           std::abs(travelY) > 1e-9 ? -unit / travelY : 0.0);
}

void PDialog::MoveContent(QPointF paneDelta) {
    if (!moveStart_)
        return;
    PSettings& s = Settings();
    s.offsetX = static_cast<float>(moveStart_->offsetX + paneDelta.x() * movePerPane_.x());
    s.offsetY = static_cast<float>(moveStart_->offsetY + paneDelta.y() * movePerPane_.y());
    RequestPreview(false);
}

void PDialog::EndMove(bool keep) {
    if (!moveStart_)
        return;
    const std::unique_ptr<PSettings> start = std::move(moveStart_);
    PSettings& s = Settings();
    if (!keep) {
        s.offsetX = start->offsetX;
        s.offsetY = start->offsetY;
    } else if (s.offsetX != start->offsetX || s.offsetY != start->offsetY) {
        stack_.Push(std::make_unique<PSettingsTask>(*this, *start, Velmo::ViewIdOf(kMoveTool),
                                                    settings_field::kOffsets));
    }
    RequestPreview(false);
}

}  // namespace Project
