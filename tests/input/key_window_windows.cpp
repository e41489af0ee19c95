// A second program for the Windows end-to-end check: a window that takes
// the keyboard focus and prints every key it receives, "down VK" or "up VK"
// (Windows virtual-key codes, decimal), one line each, flushed at once. It
// closes itself after the seconds given as its argument (default 30).

#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace {

LRESULT CALLBACK on_message(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
    case WM_KEYUP:
    case WM_SYSKEYUP: {
        const bool down = message == WM_KEYDOWN || message == WM_SYSKEYDOWN;
        std::printf("%s %u\n", down ? "down" : "up", unsigned(wparam));
        std::fflush(stdout);
        return 0;
    }
    case WM_TIMER:
        ::PostQuitMessage(0);
        return 0;
    default:
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 30;
    WNDCLASSW window_class{};
    window_class.lpfnWndProc = on_message;
    window_class.hInstance = ::GetModuleHandleW(nullptr);
    window_class.lpszClassName = L"CorvaneKeyWindow";
    ::RegisterClassW(&window_class);
    HWND window = ::CreateWindowExW(0, window_class.lpszClassName, L"Corvane key window",
                                    WS_OVERLAPPEDWINDOW | WS_VISIBLE, 10, 10, 300, 200, nullptr,
                                    nullptr, window_class.hInstance, nullptr);
    ::SetForegroundWindow(window);
    ::SetFocus(window);
    ::SetTimer(window, 1, UINT(seconds * 1000), nullptr);
    std::printf("ready\n");
    std::fflush(stdout);
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
    return 0;
}
