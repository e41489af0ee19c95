#include "input/hotkey.h"

#include "input/key_table.h"

#include <cctype>
#include <iterator>

namespace corv::input {

namespace {

bool starts_with_word(std::string_view text, std::string_view word)
{
    if (text.size() < word.size())
        return false;
    for (std::size_t i = 0; i < word.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[i])) != std::tolower(static_cast<unsigned char>(word[i])))
            return false;
    return true;
}

// The code point of text when it is exactly one UTF-8 character; else 0.
char32_t single_char(std::string_view text)
{
    if (text.empty())
        return 0;
    const auto b = static_cast<unsigned char>(text[0]);
    std::size_t length = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
    if (length == 0 || length != text.size())
        return 0;
    char32_t ch = length == 1 ? b : length == 2 ? (b & 0x1f) : length == 3 ? (b & 0x0f) : (b & 0x07);
    for (std::size_t i = 1; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if ((c >> 6) != 2)
            return 0;
        ch = (ch << 6) | (c & 0x3f);
    }
    return ch;
}

char32_t to_lower(char32_t ch)
{
    return ch >= 'A' && ch <= 'Z' ? ch + ('a' - 'A') : ch;
}

// VkKeyScanW's shift state to mask bits.
std::uint32_t mask_of_shift_state(std::int32_t state)
{
    return (state & 1 ? kShiftBit : 0u) | (state & 2 ? kCtrlBit : 0u) | (state & 4 ? kAltBit : 0u);
}

} // namespace

std::uint32_t modifiers_of(const KeySet &down)
{
    std::uint32_t mask = 0;
    if (key_in(down, kVkShift))
        mask |= kShiftBit;
    if (key_in(down, kVkControl))
        mask |= kCtrlBit;
    if (key_in(down, kVkAlt))
        mask |= kAltBit;
    if (key_in(down, kVkLeftWin) || key_in(down, kVkRightWin))
        mask |= kWinBit;
    return mask;
}

bool matches(const Hotkey &hotkey, const KeySet &down)
{
    if (hotkey.key != 0 && !key_in(down, hotkey.key))
        return false;
    return modifiers_of(down) == (hotkey.mask & (kAltBit | kCtrlBit | kShiftBit | kWinBit));
}

std::optional<Hotkey> parse_hotkey(std::string_view text, const ScanChar &scan_char)
{
    // Only the first combination counts; combinations are separated by ", "
    // (a "," key stands before it as ",, ").
    if (const std::size_t comma = text.find(", ", 1); comma != std::string_view::npos)
        text = text.substr(0, comma);
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    Hotkey hotkey;
    bool keypad = false;
    for (bool more = true; more;) {
        more = false;
        struct Prefix {
            std::string_view word;
            std::uint32_t bit;
        };
        for (const Prefix prefix : {Prefix{"Ctrl+", kCtrlBit}, Prefix{"Alt+", kAltBit},
                                    Prefix{"Meta+", kWinBit}, Prefix{"Shift+", kShiftBit},
                                    Prefix{"Num+", 0}}) {
            if (starts_with_word(text, prefix.word)) {
                hotkey.mask |= prefix.bit;
                keypad |= prefix.bit == 0;
                text.remove_prefix(prefix.word.size());
                more = true;
            }
        }
    }
    if (text.empty())
        return hotkey;

    if (const KeyRow *row = row_for_name(text, keypad); row && (keypad || text.size() > 1)) {
        hotkey.key = row->vk;
        return hotkey;
    }
    if (keypad)
        return std::nullopt;
    const char32_t ch = single_char(text);
    if (!ch)
        return std::nullopt;
    // A character key: the layout decides which key types it.
    if (scan_char) {
        const std::int32_t scan = scan_char(to_lower(ch));
        if (scan != -1 && (scan & 0xff) != 0xff) {
            hotkey.key = std::uint32_t(scan & 0xff);
            hotkey.mask |= mask_of_shift_state(scan >> 8);
            return hotkey;
        }
    }
    if (ch < 0x80) {
        if (const KeyRow *row = row_for_name(std::string_view(text), false)) {
            hotkey.key = row->vk;
            return hotkey;
        }
        if (const KeyRow *row = row_for_shifted(char(ch))) {
            hotkey.key = row->vk;
            hotkey.mask |= kShiftBit;
            return hotkey;
        }
    }
    return std::nullopt;
}

namespace {

struct Modifier {
    std::uint32_t mask_bit;
    std::uint32_t vk;
    std::uint32_t pressed_bit;
};
constexpr Modifier kModifiers[] = {
    {kShiftBit, kVkShift, Injection::kShiftPressed},
    {kCtrlBit, kVkControl, Injection::kCtrlPressed},
    {kAltBit, kVkAlt, Injection::kAltPressed},
    {kWinBit, kVkLeftWin, Injection::kWinPressed},
};

} // namespace

KeySet Injection::keys_to_read(const Hotkey &hotkey)
{
    KeySet keys;
    for (const Modifier &modifier : kModifiers)
        keys.set(modifier.vk);
    keys.set(kVkRightWin);
    if (hotkey.key < 256)
        keys.set(hotkey.key);
    return keys;
}

std::vector<KeyRecord> Injection::press(const KeySet &down)
{
    std::vector<KeyRecord> records;
    m_pressed = 0;
    for (const Modifier &modifier : kModifiers) {
        const bool is_down = modifier.vk == kVkLeftWin ? key_in(down, kVkLeftWin) || key_in(down, kVkRightWin)
                                                        : key_in(down, modifier.vk);
        if ((m_hotkey.mask & modifier.mask_bit) && !is_down) {
            records.push_back({modifier.vk, false});
            m_pressed |= modifier.pressed_bit;
        }
    }
    if (m_hotkey.key != 0) {
        if (key_in(down, m_hotkey.key))
            records.push_back({m_hotkey.key, true});
        records.push_back({m_hotkey.key, false});
        m_pressed |= kKeyPressed;
    }
    return records;
}

std::vector<KeyRecord> Injection::release() const
{
    std::vector<KeyRecord> records;
    for (const Modifier &modifier : kModifiers)
        if (m_pressed & modifier.pressed_bit)
            records.push_back({modifier.vk, true});
    if (m_pressed & kKeyPressed)
        records.push_back({m_hotkey.key, true});
    return records;
}

std::uint32_t Injection::pressed_modifiers() const
{
    std::uint32_t mask = 0;
    for (const Modifier &modifier : kModifiers)
        if (m_pressed & modifier.pressed_bit)
            mask |= modifier.mask_bit;
    return mask;
}

void edges_from_recent_presses(const KeySet &before, const KeySet &now, const KeySet &pressed,
                               std::vector<KeyRecord> &edges)
{
    const auto is_modifier = [](std::size_t vk) {
        return vk == kVkShift || vk == kVkControl || vk == kVkAlt || vk == kVkLeftWin || vk == kVkRightWin;
    };
    const KeySet released = before & ~now;
    const KeySet went_down = ~before & now;
    const KeySet tapped = ~before & ~now & pressed;
    for (std::size_t vk = 1; vk < 256; ++vk)
        if (released[vk])
            edges.push_back({std::uint32_t(vk), true});
    for (bool modifiers : {true, false})
        for (std::size_t vk = 1; vk < 256; ++vk)
            if ((went_down[vk] || tapped[vk]) && is_modifier(vk) == modifiers)
                edges.push_back({std::uint32_t(vk), false});
    for (bool modifiers : {false, true})
        for (std::size_t vk = 1; vk < 256; ++vk)
            if (tapped[vk] && is_modifier(vk) == modifiers)
                edges.push_back({std::uint32_t(vk), true});
}

std::string hotkey_text(const Hotkey &hotkey)
{
    std::string text;
    if (hotkey.mask & kCtrlBit)
        text += "Ctrl+";
    if (hotkey.mask & kAltBit)
        text += "Alt+";
    if (hotkey.mask & kWinBit)
        text += "Meta+";
    if (hotkey.mask & kShiftBit)
        text += "Shift+";
    if (hotkey.key == 0)
        return text;
    const KeyRow *row = row_for_vk(hotkey.key);
    if (!row || row->name.empty())
        return {};
    if (row->keypad)
        text += "Num+";
    text += row->name;
    return text;
}

} // namespace corv::input
