#pragma once

// The keyboard as the hotkey poller and the key injector see it, one backend
// per platform. This header and the backends use no Qt, so a backend can be
// built and run on its own (the Windows one is cross-compiled and run under
// Wine by scripts/wine-input-check.sh).
//
// Windows virtual-key codes are the currency on every platform: 16 Shift,
// 17 Ctrl, 18 Alt, 91/92 the left/right Win keys, 'A'..'Z', '0'..'9', F-keys,
// arrows and so on (key_table.h holds the names and X11 keysyms).

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace corv::input {

constexpr std::uint32_t kVkShift = 16;
constexpr std::uint32_t kVkControl = 17;
constexpr std::uint32_t kVkAlt = 18;
constexpr std::uint32_t kVkLeftWin = 91;
constexpr std::uint32_t kVkRightWin = 92;

// Which virtual keys are down (codes 0..255).
using KeySet = std::bitset<256>;

inline bool key_in(const KeySet &keys, std::uint32_t vk)
{
    return vk < 256 && keys[vk];
}

// One key going down or up.
struct KeyRecord {
    std::uint32_t vk;
    bool up;
};

class KeyboardBackend
{
public:
    virtual ~KeyboardBackend() = default;

    // Reads the whole keyboard at once into `down`. `wanted` names the keys
    // the caller will look at; a backend that can read everything in one
    // query (X11) ignores it, one that asks key by key (Windows) asks only
    // for those. The generic modifier codes (16, 17, 18) are set when
    // either side is down. False when the keyboard cannot be read.
    //
    // With `edges`, the backend also appends the key changes it saw since
    // the previous read with edges, in order, so that a press that came and
    // went between two reads is not lost. Replayed over the previous read's
    // state they lead towards `down`; `down` is what counts where they fall
    // short. X11 lists every change (XInput2 raw key events); Windows only
    // what the state cannot show (keys pressed since the last read,
    // GetAsyncKeyState's low bit), rebuilt by edges_from_recent_presses.
    // The first read with edges lists none; a read without them ends the
    // collecting (until the next read with edges, which again lists none).
    virtual bool snapshot(KeySet &down, const KeySet &wanted, std::vector<KeyRecord> *edges = nullptr) = 0;

    // Sends the records as one batch, in order, to the whole desktop; they
    // have reached the system's key state when this returns.
    virtual bool send(const KeyRecord *records, std::size_t count) = 0;

    // The key that types `ch` in the current layout, as VkKeyScanW answers:
    // the virtual-key code in the low byte, the shift state in the next
    // (1 Shift, 2 Ctrl, 4 Alt); -1 when no key types it.
    virtual std::int32_t scan_char(char32_t ch) = 0;
};

// The edges of one read for a backend that reads key by key and learns only
// which keys went down since its last read (`pressed`, for keys it read both
// times): keys let go come first, then the keys that went down, modifiers
// before the others, then the keys that went down and up again since, the
// others before the modifiers. A key still down that went down again is a
// repeat and adds nothing.
void edges_from_recent_presses(const KeySet &before, const KeySet &now, const KeySet &pressed,
                               std::vector<KeyRecord> &edges);

// The platform's own backend, for the calling thread (X11 on Linux, Windows
// on Windows): null with a reason when global keyboard input is not
// possible here. `problem` may also name a limit of a working backend.
struct NativeOpening {
    std::unique_ptr<KeyboardBackend> backend;
    std::string problem;
};
NativeOpening open_native_backend();

} // namespace corv::input
