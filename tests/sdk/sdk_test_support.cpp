#include "sdk_test_support.h"

#include "sdk/include/corvane/corvane_sdk.h"
#include "tests/test_platform.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

// Called by the test plugins; exported like the program's own SDK
// functions, from the test executable that loads them.
CPLUGIN_EXPORT void tst_sdk_record(const char *line)
{
    sdk_test::recorded().append(QString::fromUtf8(line));
}

namespace sdk_test {

QStringList &recorded()
{
    static QStringList lines;
    return lines;
}

void settle()
{
    for (int i = 0; i < 100; ++i)
        QCoreApplication::sendPostedEvents();
}

bool is_mapped(const QString &path)
{
    return corv::test::library_is_loaded(path);
}

QString test_plugin(const QString &id)
{
    return QStringLiteral(CORV_TEST_PLUGIN_DIR "/") + id + QStringLiteral(CORV_PLUGIN_SUFFIX);
}

namespace {
QtMessageHandler g_previous_handler = nullptr;
MessageLog *g_log = nullptr;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_log && context.category && qstrcmp(context.category, "corv.sdk") == 0)
        g_log->lines.append(message);
    g_previous_handler(type, context, message);
}
} // namespace

MessageLog::MessageLog()
{
    g_log = this;
    g_previous_handler = qInstallMessageHandler(capture);
}

MessageLog::~MessageLog()
{
    qInstallMessageHandler(g_previous_handler);
    g_log = nullptr;
}

PluginFolder::PluginFolder() = default;

QString PluginFolder::add(const QString &library, const QString &folder, const QString &file_name)
{
    const QString folder_path = m_dir.filePath(folder);
    QDir().mkpath(folder_path);
    const QString name = file_name.isEmpty() ? folder : file_name;
    const QString target = folder_path + u'/' + name + QStringLiteral(CORV_PLUGIN_SUFFIX);
    if (!QFile::copy(library, target))
        qFatal("Can't copy %s to %s", qUtf8Printable(library), qUtf8Printable(target));
    return folder_path;
}

QString PluginFolder::add_folder(const QString &source, const QString &folder)
{
    const QString folder_path = m_dir.filePath(folder);
    QDirIterator it(source, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        const QString target = folder_path + u'/' + QDir(source).relativeFilePath(file);
        QDir().mkpath(QFileInfo(target).absolutePath());
        if (!QFile::copy(file, target))
            qFatal("Can't copy %s to %s", qUtf8Printable(file), qUtf8Printable(target));
    }
    return folder_path;
}

} // namespace sdk_test
