#pragma once

// A hotkey: a virtual-key code (0: modifiers only) and a modifier mask, read
// from the portable key-sequence text that hotkey fields store. Qt-free.

#include "input/keyboard_backend.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corv::input {

// Modifier mask bits.
enum ModifierBit : std::uint32_t { kAltBit = 1, kCtrlBit = 2, kShiftBit = 4, kWinBit = 8 };

struct Hotkey {
    std::uint32_t key = 0;
    std::uint32_t mask = 0;
    bool empty() const { return key == 0 && mask == 0; }
    friend bool operator==(const Hotkey &, const Hotkey &) = default;
};

// True when the keyboard state holds exactly this hotkey: its key down (if
// it has one) and each of Shift, Ctrl, Alt and Win down exactly when the
// mask says so (Win: either side). An extra modifier prevents the match.
bool matches(const Hotkey &hotkey, const KeySet &down);

// The modifiers a state holds, as a mask.
std::uint32_t modifiers_of(const KeySet &down);

// Asks the layout which key types a character (KeyboardBackend::scan_char).
using ScanChar = std::function<std::int32_t(char32_t)>;

// Reads the first combination of key-sequence text ("Ctrl+Shift+K",
// "Meta+F5", "Alt+Num+7", "Ctrl+Shift+" for modifiers only): Ctrl, Alt,
// Shift and Meta (the Win key) become mask bits; a character key is looked
// up through scan_char (its Shift becomes part of the mask), named keys and
// the US layout through the key table. Empty text gives the empty hotkey;
// text naming no known key gives nothing.
std::optional<Hotkey> parse_hotkey(std::string_view text, const ScanChar &scan_char = {});

// One injection of a hotkey. press() plans the key-downs for the current
// key state: each modifier of the mask that is not down yet (Shift, Ctrl,
// Alt, Win), then the key (let go first when it is already down, so the
// target sees a fresh press). release() plans key-ups for exactly what the
// press put down: Shift, Ctrl, Alt, left Win, then the key. A modifier
// the user holds is neither pressed nor released.
class Injection
{
public:
    // Bits of pressed(): 1 the key, 2 Shift, 4 Ctrl, 8 Alt, 16 Win.
    enum Pressed : std::uint32_t { kKeyPressed = 1, kShiftPressed = 2, kCtrlPressed = 4, kAltPressed = 8, kWinPressed = 16 };

    explicit Injection(const Hotkey &hotkey) : m_hotkey(hotkey) {}
    std::vector<KeyRecord> press(const KeySet &down);
    std::vector<KeyRecord> release() const;
    std::uint32_t pressed() const { return m_pressed; }
    const Hotkey &hotkey() const { return m_hotkey; }
    // The modifiers press() put down, as mask bits.
    std::uint32_t pressed_modifiers() const;
    // The keys to read before press().
    static KeySet keys_to_read(const Hotkey &hotkey);

private:
    Hotkey m_hotkey;
    std::uint32_t m_pressed = 0;
};

// Writes a hotkey as key-sequence text, modifiers in the order the hotkey
// field writes them ("Ctrl+Alt+Meta+Shift+"). Empty for an unknown key.
std::string hotkey_text(const Hotkey &hotkey);

} // namespace corv::input
