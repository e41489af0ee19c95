#include "input/windows_backend.h"

#ifdef _WIN32

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <vector>

namespace corv::input {

namespace {

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
    bool snapshot(KeySet &down, const KeySet &wanted) override
    {
        down.reset();
        for (std::size_t vk = 1; vk < 256; ++vk)
            if (wanted[vk] && (GetAsyncKeyState(int(vk)) & 0x8000))
                down.set(vk);
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

#endif // _WIN32
