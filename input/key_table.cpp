#include "input/key_table.h"

#include <array>
#include <cctype>

#include "input/keyboard_backend.h"

namespace corv::input {

namespace {

constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr char kDigits[] = "0123456789";
constexpr char kShiftedDigits[] = ")!@#$%^&*(";
constexpr char kFunctionNames[] = "F1 F2 F3 F4 F5 F6 F7 F8 F9 F10F11F12F13F14F15F16F17F18F19F20F21F22F23F24";

// The named keys; letters, digits, keypad digits and F-keys are added below.
constexpr KeyRow kNamed[] = {
    {0x08, "Backspace", 0, 0xff08, false},
    {0x09, "Tab", 0, 0xff09, false},
    {0x09, "Backtab", 0, 0xfe20, false}, // Qt's name for Shift+Tab's key
    {0x0D, "Return", 0, 0xff0d, false},
    {0x0D, "Enter", 0, 0xff8d, false},
    {0x0D, "Enter", 0, 0xff8d, true},
    {0x13, "Pause", 0, 0xff13, false},
    {0x14, "CapsLock", 0, 0xffe5, false},
    {0x1B, "Esc", 0, 0xff1b, false},
    {0x1B, "Escape", 0, 0xff1b, false},
    {0x20, "Space", 0, 0x20, false},
    {0x21, "PgUp", 0, 0xff55, false},
    {0x22, "PgDown", 0, 0xff56, false},
    {0x23, "End", 0, 0xff57, false},
    {0x24, "Home", 0, 0xff50, false},
    {0x25, "Left", 0, 0xff51, false},
    {0x26, "Up", 0, 0xff52, false},
    {0x27, "Right", 0, 0xff53, false},
    {0x28, "Down", 0, 0xff54, false},
    {0x2C, "Print", 0, 0xff61, false},
    {0x2D, "Ins", 0, 0xff63, false},
    {0x2D, "Insert", 0, 0xff63, false},
    {0x2E, "Del", 0, 0xffff, false},
    {0x2E, "Delete", 0, 0xffff, false},
    {0x5D, "Menu", 0, 0xff67, false},
    {0x6A, "*", 0, 0xffaa, true},
    {0x6B, "+", 0, 0xffab, true},
    {0x6D, "-", 0, 0xffad, true},
    {0x6E, ".", 0, 0xffae, true},
    {0x6F, "/", 0, 0xffaf, true},
    {0x90, "NumLock", 0, 0xff7f, false},
    {0x91, "ScrollLock", 0, 0xff14, false},
    {0xAD, "Volume Mute", 0, 0x1008ff12, false},
    {0xAE, "Volume Down", 0, 0x1008ff11, false},
    {0xAF, "Volume Up", 0, 0x1008ff13, false},
    {0xB0, "Media Next", 0, 0x1008ff17, false},
    {0xB1, "Media Previous", 0, 0x1008ff16, false},
    {0xB2, "Media Stop", 0, 0x1008ff15, false},
    {0xB3, "Media Play", 0, 0x1008ff14, false},
    // Punctuation, with the US layout's shifted characters.
    {0xBA, ";", ':', ';', false},
    {0xBB, "=", '+', '=', false},
    {0xBC, ",", '<', ',', false},
    {0xBD, "-", '_', '-', false},
    {0xBE, ".", '>', '.', false},
    {0xBF, "/", '?', '/', false},
    {0xC0, "`", '~', '`', false},
    {0xDB, "[", '{', '[', false},
    {0xDC, "\\", '|', '\\', false},
    {0xDD, "]", '}', ']', false},
    {0xDE, "'", '"', '\'', false},
    // Modifiers: no name (key-sequence text writes them as prefixes), the
    // generic code for either side, the left/right codes of the Win keys.
    {kVkShift, "", 0, 0xffe1, false},
    {kVkShift, "", 0, 0xffe2, false},
    {kVkControl, "", 0, 0xffe3, false},
    {kVkControl, "", 0, 0xffe4, false},
    {kVkAlt, "", 0, 0xffe9, false},
    {kVkAlt, "", 0, 0xffea, false},
    {kVkAlt, "", 0, 0xfe03, false}, // AltGr
    {0x5B, "", 0, 0xffeb, false},
    {0x5C, "", 0, 0xffec, false},
};

constexpr std::size_t kCount = std::size(kNamed) + 26 + 10 + 10 + 24;

constexpr std::array<KeyRow, kCount> make_table()
{
    std::array<KeyRow, kCount> rows{};
    std::size_t n = 0;
    for (int i = 0; i < 26; ++i)
        rows[n++] = {std::uint32_t('A' + i), std::string_view(kLetters + i, 1), 0,
                     std::uint32_t('a' + i), false};
    for (int i = 0; i < 10; ++i)
        rows[n++] = {std::uint32_t('0' + i), std::string_view(kDigits + i, 1), kShiftedDigits[i],
                     std::uint32_t('0' + i), false};
    for (int i = 0; i < 10; ++i)
        rows[n++] = {std::uint32_t(0x60 + i), std::string_view(kDigits + i, 1), 0,
                     std::uint32_t(0xffb0 + i), true};
    for (int i = 0; i < 24; ++i) {
        std::string_view name(kFunctionNames + 3 * i, 3);
        if (name.back() == ' ')
            name.remove_suffix(1);
        rows[n++] = {std::uint32_t(0x70 + i), name, 0, std::uint32_t(0xffbe + i), false};
    }
    for (const KeyRow &row : kNamed)
        rows[n++] = row;
    return rows;
}

constexpr std::array<KeyRow, kCount> kTable = make_table();

bool same_name(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

} // namespace

std::span<const KeyRow> key_table()
{
    return kTable;
}

const KeyRow *row_for_vk(std::uint32_t vk)
{
    for (const KeyRow &row : kTable)
        if (row.vk == vk)
            return &row;
    return nullptr;
}

const KeyRow *row_for_name(std::string_view name, bool keypad)
{
    if (name.empty())
        return nullptr;
    for (const KeyRow &row : kTable)
        if (row.keypad == keypad && same_name(row.name, name))
            return &row;
    return nullptr;
}

const KeyRow *row_for_shifted(char ch)
{
    if (!ch)
        return nullptr;
    for (const KeyRow &row : kTable)
        if (row.shifted == ch)
            return &row;
    return nullptr;
}

std::uint32_t vk_for_keysym(std::uint32_t keysym)
{
    if (keysym >= 'A' && keysym <= 'Z')
        keysym += 'a' - 'A';
    if (!keysym)
        return 0;
    for (const KeyRow &row : kTable)
        if (row.keysym == keysym)
            return row.vk;
    return 0;
}

} // namespace corv::input
