#include "run_helper.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

namespace {

std::string utf8(const wchar_t *text)
{
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string bytes(size > 0 ? size - 1 : 0, '\0');
    if (size > 1)
        WideCharToMultiByte(CP_UTF8, 0, text, -1, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

} // namespace

std::vector<std::string> helper_arguments(int, char **)
{
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
    // argv is in the ANSI code page: the wide command line has every character.
    int count = 0;
    wchar_t **wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 1; wide && i < count; ++i)
        arguments.push_back(utf8(wide[i]));
    LocalFree(wide);
    return arguments;
}

long long helper_start_self(const std::vector<std::string> &arguments)
{
    wchar_t self[MAX_PATH];
    if (!GetModuleFileNameW(nullptr, self, MAX_PATH))
        return -1;
    // Simple words only (no quotes or spaces to escape).
    std::wstring line = L"\"" + std::wstring(self) + L"\"";
    for (const std::string &argument : arguments)
        line += L" " + std::wstring(argument.begin(), argument.end());
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info = {};
    // No handles inherited: a reader of this one's output waits for no copy.
    if (!CreateProcessW(self, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &info))
        return -1;
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return info.dwProcessId;
}

void helper_ignore_stop_requests() {}
