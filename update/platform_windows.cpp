#include "update/platform.h"

#include <QDir>
#include <QProcess>

namespace corv::update::platform {

const char *update_method()
{
    return "win64.msi";
}

const char *plugin_update_method()
{
    return "win64.tar.gz";
}

QString update_host_file_name()
{
    return QStringLiteral("updatehost.exe");
}

QStringList update_host_companions()
{
    // Windows looks for a program's libraries beside it; the TLS backends
    // are Qt plugins, looked for in "tls" beside it.
    return {QStringLiteral("Qt6Core.dll"),
            QStringLiteral("Qt6Network.dll"),
            QStringLiteral("libstdc++-6.dll"),
            QStringLiteral("libgcc_s_seh-1.dll"),
            QStringLiteral("libwinpthread-1.dll"),
            QStringLiteral("tls/qschannelbackend.dll"),
            QStringLiteral("tls/qcertonlybackend.dll")};
}

bool is_system_package(const QString &file)
{
    return file.endsWith(QLatin1StringView(".msi"), Qt::CaseInsensitive);
}

QString system_package_refusal(const QString &)
{
    return {};
}

bool install_system_package(const QString &file, int timeout_ms, QString *error)
{
    QProcess msiexec;
    msiexec.setProgram(QStringLiteral("msiexec"));
    msiexec.setArguments(
        {QStringLiteral("/i"), QDir::toNativeSeparators(file), QStringLiteral("/passive")});
    msiexec.start();
    if (!msiexec.waitForStarted(30000)) {
        *error = QStringLiteral("could not start msiexec: %1").arg(msiexec.errorString());
        return false;
    }
    if (!msiexec.waitForFinished(timeout_ms)) {
        // Windows Installer rolls back what it began; stopping it is all we can do.
        msiexec.kill();
        msiexec.waitForFinished(5000);
        *error = QStringLiteral("msiexec did not finish in %1 ms").arg(timeout_ms);
        return false;
    }
    // 3010 and 1641: installed, and a restart is needed or was started.
    const int code = msiexec.exitCode();
    if (msiexec.exitStatus() != QProcess::NormalExit || (code != 0 && code != 3010 && code != 1641)) {
        *error = QStringLiteral("msiexec failed on %1 with exit code %2").arg(file).arg(code);
        return false;
    }
    return true;
}

} // namespace corv::update::platform
