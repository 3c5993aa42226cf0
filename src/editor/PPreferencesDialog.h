#pragma once

#include <QDialog>
#include <array>
#include <cstdint>

#include "session/PSettings.h"

class QCheckBox;
class QComboBox;
class QPushButton;
class QSpinBox;

namespace Project {

// The preferences the editor keeps in the settings record and the
// preferences file: the six display colours, the regulariser the mesh is
// drawn towards, whether the picture is cropped to its content (no empty
// border; the settings' stored byte S1), the loupe's magnification and
// whether the loupe follows the pointer during a drag.
struct PEditorPreferences {
    std::array<uint32_t, 6> colors{};
    RegularizerModel regularizer = RegularizerModel::Auto;
    bool cropToContent = false;
    int32_t loupeSize = 140;  // percent: 100 shows the photograph's pixels one to one
    bool showLoupeWhenDragging = true;

    static PEditorPreferences From(const PSettings& settings);
    void ApplyTo(PSettings& settings) const;
    // The factory values.
    static PEditorPreferences Factory();
    friend bool operator==(const PEditorPreferences&, const PEditorPreferences&) = default;
};

// The loupe's magnifications the preferences allow, percent.
inline constexpr int32_t kMinLoupeSize = 100;
inline constexpr int32_t kMaxLoupeSize = 300;

// The editor's preferences dialog (the correction flyout's "Preferences...").
// Each colour is a swatch button that opens a colour chooser; "Restore
// Factory Settings" puts every field back to its factory value. The dialog
// edits a copy: the caller takes Values() after OK.
class PPreferencesDialog final : public QDialog {
public:
    PPreferencesDialog(const PEditorPreferences& values, QWidget* parent);

    PEditorPreferences Values() const;
    void SetValues(const PEditorPreferences& values);
    QPushButton* ColorButton(int index) const { return colorButtons_[static_cast<size_t>(index)]; }

private:
    void ShowColor(int index);

    std::array<uint32_t, 6> colors_{};
    std::array<QPushButton*, 6> colorButtons_{};
    QComboBox* regularizer_ = nullptr;
    QCheckBox* cropToContent_ = nullptr;
    QSpinBox* loupeSize_ = nullptr;
    QCheckBox* loupeWhenDragging_ = nullptr;
};

}  // namespace Project
