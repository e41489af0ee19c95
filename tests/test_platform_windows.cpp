#include "tests/test_platform.h"

#include <QDir>
#include <QProcess>

#include <windows.h>

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
    return GetModuleHandleW(reinterpret_cast<const wchar_t *>(QDir::toNativeSeparators(path).utf16())) != nullptr;
}

bool running_under_wine()
{
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

} // namespace corv::test
