#include "input/windows_backend.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <atomic>
#include <vector>

namespace corv::input {

namespace {

// GetAsyncKeyState's low bit, "pressed since the last call", belongs to
// whoever calls next: every read of this process (the injector's too) adds
// it here, and a read with edges takes it for the keys it reads.
std::atomic<std::uint64_t> g_recent[4];

void note_recent(std::size_t vk)
{
    g_recent[vk / 64].fetch_or(std::uint64_t(1) << (vk % 64), std::memory_order_relaxed);
}

KeySet take_recent(const KeySet &keys)
{
    KeySet taken;
    for (std::size_t word = 0; word < 4; ++word) {
        std::uint64_t mask = 0;
        for (std::size_t bit = 0; bit < 64; ++bit)
            if (keys[word * 64 + bit])
                mask |= std::uint64_t(1) << bit;
        if (!mask)
            continue;
        const std::uint64_t bits = g_recent[word].fetch_and(~mask, std::memory_order_relaxed) & mask;
        for (std::size_t bit = 0; bit < 64; ++bit)
            if (bits & (std::uint64_t(1) << bit))
                taken.set(word * 64 + bit);
    }
    return taken;
}

// Keys that sit on the extended part of the keyboard; their scan codes need
// the extended flag.
bool is_extended(std::uint32_t vk)
{
    switch (vk) {
    case VK_PRIOR: case VK_NEXT: case VK_END: case VK_HOME:
    case VK_LEFT: case VK_UP: case VK_RIGHT: case VK_DOWN:
    case VK_SNAPSHOT: case VK_INSERT: case VK_DELETE:
    case VK_LWIN: case VK_RWIN: case VK_APPS: case VK_DIVIDE: case VK_NUMLOCK:
    case VK_RCONTROL: case VK_RMENU:
    case VK_VOLUME_MUTE: case VK_VOLUME_DOWN: case VK_VOLUME_UP:
    case VK_MEDIA_NEXT_TRACK: case VK_MEDIA_PREV_TRACK: case VK_MEDIA_STOP: case VK_MEDIA_PLAY_PAUSE:
        return true;
    default:
        return false;
    }
}

class WindowsBackend final : public KeyboardBackend
{
public:
    bool snapshot(KeySet &down, const KeySet &wanted, std::vector<KeyRecord> *edges) override
    {
        down.reset();
        for (std::size_t vk = 1; vk < 256; ++vk) {
            if (!wanted[vk])
                continue;
            const SHORT state = GetAsyncKeyState(int(vk));
            if (state & 0x8000)
                down.set(vk);
            if (state & 1)
                note_recent(vk);
        }
        // A modifier's press may be noted on its left or right key only
        // (Wine does so): those count for the generic code.
        static constexpr int kSides[][3] = {{VK_SHIFT, VK_LSHIFT, VK_RSHIFT},
                                            {VK_CONTROL, VK_LCONTROL, VK_RCONTROL},
                                            {VK_MENU, VK_LMENU, VK_RMENU}};
        for (const auto &sides : kSides)
            if (wanted[std::size_t(sides[0])])
                for (int side : {sides[1], sides[2]})
                    if (GetAsyncKeyState(side) & 1)
                        note_recent(std::size_t(sides[0]));
        if (!edges) {
            m_primed = false;
            return true;
        }
        // A key read for the first time may carry a press from long ago.
        const KeySet both = wanted & m_wanted;
        const KeySet pressed = take_recent(wanted) & both;
        if (m_primed)
            edges_from_recent_presses(m_before & both, down & both, pressed, *edges);
        m_primed = true;
        m_before = down;
        m_wanted = wanted;
        return true;
    }

    bool send(const KeyRecord *records, std::size_t count) override
    {
        if (count == 0)
            return true;
        std::vector<INPUT> inputs(count);
        const ULONG_PTR extra = ULONG_PTR(GetMessageExtraInfo());
        for (std::size_t i = 0; i < count; ++i) {
            INPUT &input = inputs[i];
            input.type = INPUT_KEYBOARD;
            input.ki.wVk = WORD(records[i].vk);
            input.ki.wScan = WORD(MapVirtualKeyW(records[i].vk, MAPVK_VK_TO_VSC));
            input.ki.dwFlags = (records[i].up ? KEYEVENTF_KEYUP : 0)
                               | (is_extended(records[i].vk) ? KEYEVENTF_EXTENDEDKEY : 0);
            input.ki.time = 0;
            input.ki.dwExtraInfo = extra;
        }
        return SendInput(UINT(count), inputs.data(), int(sizeof(INPUT))) == UINT(count);
    }

    std::int32_t scan_char(char32_t ch) override
    {
        if (ch > 0xffff)
            return -1;
        const SHORT scan = VkKeyScanW(WCHAR(ch));
        if (scan == -1 || (scan & 0xff) == 0xff)
            return -1;
        return std::int32_t(scan & 0x07ff);
    }

private:
    // The previous read with edges.
    bool m_primed = false;
    KeySet m_before;
    KeySet m_wanted;
};

} // namespace

std::unique_ptr<KeyboardBackend> open_windows_backend()
{
    return std::make_unique<WindowsBackend>();
}

NativeOpening open_native_backend()
{
    return {open_windows_backend(), {}};
}

} // namespace corv::input
