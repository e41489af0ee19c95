#include "input/active_window.h"

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

std::string to_utf8(const wchar_t *text, int length)
{
    if (length <= 0)
        return {};
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(std::size_t(size > 0 ? size : 0), '\0');
    if (size > 0)
        WideCharToMultiByte(CP_UTF8, 0, text, length, out.data(), size, nullptr, nullptr);
    return out;
}

class WindowsWindowLookup final : public WindowLookup
{
public:
    std::optional<ActiveWindow> active() override
    {
        HWND window = GetForegroundWindow();
        if (!window)
            return std::nullopt;
        ActiveWindow found;
        std::vector<wchar_t> text(std::size_t(GetWindowTextLengthW(window)) + 1);
        found.title = to_utf8(text.data(), GetWindowTextW(window, text.data(), int(text.size())));
        wchar_t kind[256];
        found.kind = to_utf8(kind, GetClassNameW(window, kind, 256));
        DWORD pid = 0;
        GetWindowThreadProcessId(window, &pid);
        if (HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid)) {
            wchar_t path[MAX_PATH * 4];
            DWORD length = DWORD(sizeof path / sizeof path[0]);
            if (QueryFullProcessImageNameW(process, 0, path, &length))
                found.program = to_utf8(path, int(length));
            CloseHandle(process);
        }
        return found;
    }
};

} // namespace

WindowLookupOpening open_window_lookup()
{
    return {std::make_unique<WindowsWindowLookup>(), {}};
}

} // namespace corv::input
