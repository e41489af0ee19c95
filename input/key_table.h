#pragma once

// The one table of named keys: virtual-key code, the key's name in portable
// key-sequence text ("F5", "PgUp", "K", ","), the character its key types
// with Shift on a US layout, and its X11 keysym. Reading hotkey text, writing
// it, and the X11 backend's translation in both directions all go through
// it. Qt-free.

#include <cstdint>
#include <span>
#include <string_view>

namespace corv::input {

struct KeyRow {
    std::uint32_t vk;
    std::string_view name; // as in portable key-sequence text
    char shifted;          // US layout with Shift; 0: none
    std::uint32_t keysym;  // X11; 0: none
    bool keypad;           // named after "Num+" in key-sequence text
};

// Every row, letters and digits included. A code may have several rows
// (aliases, keypad Enter); the first is its main one.
std::span<const KeyRow> key_table();

// The first row of a code, or null.
const KeyRow *row_for_vk(std::uint32_t vk);
// The row named `name` (case-insensitive), keypad or not; null when none.
const KeyRow *row_for_name(std::string_view name, bool keypad);
// The row whose key types `ch` with Shift (US layout); null when none.
const KeyRow *row_for_shifted(char ch);
// The code of an X11 keysym (either case of a letter); 0 when none.
std::uint32_t vk_for_keysym(std::uint32_t keysym);

} // namespace corv::input
