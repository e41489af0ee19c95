#include "process_probe.h"

#include <QFile>
#include <QRegularExpression>

#include <signal.h>

bool process_alive(qint64 pid)
{
    if (pid <= 0 || ::kill(static_cast<pid_t>(pid), 0) != 0)
        return false;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = stat.readAll();
    const qsizetype close = line.lastIndexOf(')');
    return close < 0 || line.mid(close + 2, 1) != "Z";
}

qint64 resident_kib()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    const QRegularExpression rss(QStringLiteral("VmRSS:\\s+(\\d+)"));
    return rss.match(QString::fromLatin1(status.readAll())).captured(1).toLongLong();
}

QString shell_command(const QString &program, const QString &arguments)
{
    return u'\'' + program + QStringLiteral("' ") + arguments + QStringLiteral(" \"$@\"");
}
