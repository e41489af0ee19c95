#include "tests/test_platform.h"

#include <QDir>
#include <QProcess>

#include <windows.h>

#include <psapi.h>

namespace corv::test {

bool ask_to_stop(QProcess &process, int)
{
    if (process.state() != QProcess::Running)
        return false;
    process.terminate();
    return true;
}

bool library_is_loaded(const QString &path)
{
    const QString wanted = QDir::toNativeSeparators(QDir::cleanPath(path));
    HMODULE modules[1024];
    DWORD bytes = 0;
    if (!EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &bytes))
        return false;
    for (DWORD i = 0; i < bytes / sizeof(HMODULE); ++i) {
        wchar_t name[MAX_PATH];
        const DWORD size = GetModuleFileNameW(modules[i], name, MAX_PATH);
        if (QString::fromWCharArray(name, int(size)).startsWith(wanted, Qt::CaseInsensitive))
            return true;
    }
    return false;
}

bool rename_over(const QString &from, const QString &to)
{
    return MoveFileExW(reinterpret_cast<const wchar_t *>(QDir::toNativeSeparators(from).utf16()),
                       reinterpret_cast<const wchar_t *>(QDir::toNativeSeparators(to).utf16()),
                       MOVEFILE_REPLACE_EXISTING);
}

bool running_under_wine()
{
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

std::optional<int> rerun_on_private_desktop(int, char **, const char *)
{
    return std::nullopt;
}

} // namespace corv::test
