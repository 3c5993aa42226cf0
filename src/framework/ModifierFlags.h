#pragma once

#include <cstdint>

#include <Qt>

namespace Velmo {

// Modifier flags of a mouse event as tools receive them. The bit layout is
// part of the framework's contract with its tools:
//   bit 0  the command key (Control)
//   bit 1  Alt          (deletes; makes the Zoom tool zoom out)
//   bit 2  the hand modifier: Space held down, as users of image editors
//          expect (a tool such as Zoom springs to the Hand tool while it is
//          held)
//   bit 3  Shift
// Tools may clear bits of an event before it is handed on (spring-loading).
enum CModifierFlag : uint32_t {
    kModCommand = 1u << 0,
    kModAlt = 1u << 1,
    kModHand = 1u << 2,
    kModShift = 1u << 3,
};

// The flags for Qt's keyboard modifiers plus the state of the hand key,
// which Qt does not report as a modifier (the pane tracks it).
constexpr uint32_t ModifiersFromQt(Qt::KeyboardModifiers modifiers, bool handKeyDown) {
    uint32_t flags = 0;
    if (modifiers & Qt::ControlModifier)
        flags |= kModCommand;
    if (modifiers & Qt::AltModifier)
        flags |= kModAlt;
    if (handKeyDown)
        flags |= kModHand;
    if (modifiers & Qt::ShiftModifier)
        flags |= kModShift;
    return flags;
}

// The physical key that sets kModHand.
inline constexpr Qt::Key kHandKey = Qt::Key_Space;

// Key codes as tools receive them: ASCII control codes for the editing keys,
// the Unicode code point for a printable key (letters in upper case), and
// Qt's key value for anything else.
inline constexpr int kKeyBackspace = 8;
inline constexpr int kKeyTab = 9;
inline constexpr int kKeyReturn = 13;
inline constexpr int kKeyEscape = 27;
inline constexpr int kKeyDelete = 127;

int KeyCodeFromQt(int qtKey);

}  // namespace Velmo
