// Feeds arbitrary bytes to the reader of hotkey text (what hotkey fields of
// a project store). The first bytes, up to a newline, are the keys held down
// and a keyboard layout; the rest is the text. Besides crashes and sanitizer
// reports it checks:
//  - a hotkey read without a layout is written as text that reads back as
//    the same hotkey (modifiers-only ones included), and writing that again
//    gives the same text;
//  - with a layout, a character key comes from the layout;
//  - an injection of any hotkey read, from any held keys without extra
//    modifiers, leaves the hotkey matching; its release lets go of exactly
//    what the press put down (modifiers first, Shift, Ctrl, Alt, Win, then
//    the key), and returns the modifiers to
//    how they were.
#include "fuzz/fuzz_support.h"
#include "input/hotkey.h"
#include "input/key_table.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace corv::input;

namespace {

[[noreturn]] void broken(const char *what, std::string_view text)
{
    std::fprintf(stderr, "invariant broken: %s\n%.*s\n", what, int(text.size()), text.data());
    std::abort();
}

void apply(KeySet &down, const std::vector<KeyRecord> &records)
{
    for (const KeyRecord &record : records) {
        if (record.vk < 256)
            down.set(record.vk, !record.up);
    }
}

void check_round_trip(const Hotkey &hotkey, std::string_view text)
{
    const std::string written = hotkey_text(hotkey);
    if (written.empty() && !hotkey.empty()) {
        // Only a key the table can't name (from a layout) is written as nothing.
        if (row_for_vk(hotkey.key) && !row_for_vk(hotkey.key)->name.empty())
            broken("a named key was written as nothing", text);
        return;
    }
    const std::optional<Hotkey> again = parse_hotkey(written);
    if (!again || !(*again == hotkey))
        broken("a hotkey written as text reads back as another", std::string(text) + "\n----\n" + written);
    if (hotkey_text(*again) != written)
        broken("writing a hotkey read back changed its text", written);
}

void check_injection(const Hotkey &hotkey, const KeySet &held, std::string_view text)
{
    const KeySet wanted = Injection::keys_to_read(hotkey);
    // The poller only reads the keys it asked for.
    const KeySet start = held & wanted;
    Injection injection(hotkey);
    const std::vector<KeyRecord> press = injection.press(start);
    KeySet down = start;
    apply(down, press);
    // A layout may put a character on a modifier key; such a key is a
    // modifier of its own and can't match without it.
    KeySet modifier_keys;
    for (const std::uint32_t vk : {kVkShift, kVkControl, kVkAlt, kVkLeftWin, kVkRightWin})
        modifier_keys.set(vk);
    const bool on_modifier = key_in(modifier_keys, hotkey.key);
    const std::uint32_t extra = modifiers_of(start) & ~hotkey.mask;
    if (extra == 0 && !on_modifier && !matches(hotkey, down))
        broken("an injected hotkey does not match the keys it left down", text);

    const std::vector<KeyRecord> release = injection.release();
    std::size_t downs = 0;
    for (const KeyRecord &record : press)
        downs += record.up ? 0 : 1;
    if (release.size() != downs)
        broken("the release does not let go of what the press put down", text);
    // Every key the press put down goes up, the modifiers first in the order
    // Shift, Ctrl, Alt, Win, then the main key.
    std::vector<std::uint32_t> pressed_down;
    for (const KeyRecord &record : press)
        if (!record.up)
            pressed_down.push_back(record.vk);
    const std::uint32_t order[] = {kVkShift, kVkControl, kVkAlt, kVkLeftWin, kVkRightWin};
    const auto rank = [&](std::uint32_t vk) {
        for (std::size_t i = 0; i < std::size(order); ++i)
            if (order[i] == vk && vk != hotkey.key)
                return i;
        return std::size(order);
    };
    for (std::size_t r = 0; r < release.size(); ++r) {
        if (!release[r].up || std::find(pressed_down.begin(), pressed_down.end(), release[r].vk) == pressed_down.end())
            broken("the release lets go of a key the press did not put down", text);
        if (r > 0 && rank(release[r - 1].vk) > rank(release[r].vk))
            broken("the release is not in the order Shift, Ctrl, Alt, Win, key", text);
    }
    apply(down, release);
    if (!on_modifier && modifiers_of(down) != modifiers_of(start))
        broken("the modifiers are not as they were after a release", text);
    if ((injection.pressed_modifiers() & ~hotkey.mask) != 0)
        broken("the press put down a modifier the hotkey lacks", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    std::string_view head;
    std::string_view text = bytes;
    if (const std::size_t newline = bytes.find('\n'); newline != std::string_view::npos) {
        head = bytes.substr(0, newline);
        text = bytes.substr(newline + 1);
    }
    // Held keys: every byte of the head names one. A layout: a character
    // types the key and shift state of the head's byte at its position.
    KeySet held;
    for (const char c : head)
        held.set(static_cast<unsigned char>(c));
    const ScanChar layout = [head](char32_t ch) -> std::int32_t {
        if (head.size() < 2)
            return -1;
        const auto at = [&](std::size_t i) { return static_cast<unsigned char>(head[i % head.size()]); };
        return std::int32_t(at(ch) | (at(ch + 1) & 7) << 8);
    };

    if (const std::optional<Hotkey> hotkey = parse_hotkey(text)) {
        check_round_trip(*hotkey, text);
        check_injection(*hotkey, held, text);
    }
    if (const std::optional<Hotkey> hotkey = parse_hotkey(text, layout)) {
        if (hotkey->key >= 256)
            broken("a key code out of range", text);
        check_injection(*hotkey, held, text);
    }
    return 0;
}
