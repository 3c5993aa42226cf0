#pragma once

#include <QMenu>
#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace Project {

class PTaskStack;
class PWorkspace;

// The Edit menu's entries, in menu order.
enum class PEditCommand {
    Undo,             // one step back; "Undo <name>" / "Cannot Undo"
    Redo,             // one step forward; "Redo <name>" / "Cannot Redo"
    ToggleLastState,  // between the current state and the one before it
    UndoRedo,         // Ctrl+Z: the same toggle, labelled with what it will do
    StepForward,      // Shift+Ctrl+Z: redo; repeated, walks forward through history
    StepBackward,     // Alt+Ctrl+Z: undo; repeated, walks back through history
    Cut,              // Copy, then Clear, as one undo step
    Copy,             // the selected constraints onto the clipboard as constraint-file bytes
    Paste,            // the clipboard's constraints added (new ids) and selected, one undo step
    Clear,            // Delete: the selected constraints deleted, one undo step
    SelectAll,        // Ctrl+A: every constraint selected
};

inline constexpr size_t kEditCommandCount = 11;

// The entries' keys, in menu order.
inline constexpr std::array<std::string_view, kEditCommandCount> kEditMenuKeys = {
    "$$$/Velmo/Tasks/Undo=Undo",
    "$$$/Velmo/Tasks/Redo=Redo",
    "$$$/Velmo/Tasks/ToggleLastState=Toggle Last State",
    "$$$/Curvana/EditMenu/UndoRedo=Undo",
    "$$$/Curvana/EditMenu/StepForward=Step Forward",
    "$$$/Curvana/EditMenu/StepBackward=Step Backward",
    "$$$/Curvana/EditMenu/Cut=Cut",
    "$$$/Curvana/EditMenu/Copy=Copy",
    "$$$/Curvana/EditMenu/Paste=Paste",
    "$$$/Curvana/EditMenu/Clear=Clear",
    "$$$/Curvana/EditMenu/SelectAll=Select All",
};

inline constexpr std::string_view kEditMenuTitleKey = "$$$/Curvana/EditMenu/Title=&Edit";

// The editor's Edit menu over its undo stack and workspace. The selection
// and history commands are plain functions (Run) that the menu's actions,
// their shortcuts and the dialog's keys all call. Labels and enabled states
// are brought up to date whenever the menu opens; a shortcut runs its
// command only when the command is possible at that moment.
class PEditMenu {
public:
    PEditMenu(PTaskStack& stack, PWorkspace& workspace);
    ~PEditMenu();
    PEditMenu(const PEditMenu&) = delete;
    PEditMenu& operator=(const PEditMenu&) = delete;

    QMenu& Menu() { return *menu_; }
    QAction* Action(PEditCommand command) const { return actions_[static_cast<size_t>(command)]; }

    bool Enabled(PEditCommand command) const;
    // The localised label the entry shows now.
    std::string Label(PEditCommand command) const;
    // Runs the command; false (and nothing done) when it is not enabled.
    bool Run(PEditCommand command);
    // Sets the actions' labels and enabled states.
    void Update();

private:
    bool HasSelection() const;
    void CopySelection();
    void DeleteSelection(std::string_view groupName);
    bool PasteClipboard();

    PTaskStack& stack_;
    PWorkspace& workspace_;
    std::unique_ptr<QMenu> menu_;
    std::array<QAction*, kEditCommandCount> actions_{};
};

}  // namespace Project
