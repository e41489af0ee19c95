#pragma once
// Whole files as tests read and write them.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTest>

namespace corv::test {

// The file's bytes; empty when it can't be read.
inline QByteArray read_file(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The file made anew with these bytes, its folder made first when missing;
// a failure fails the test.
inline void write_file(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size(),
             qPrintable(path + QStringLiteral(": ") + file.errorString()));
}

} // namespace corv::test
