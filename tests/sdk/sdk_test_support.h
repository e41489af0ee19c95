#pragma once

// Shared by the SDK tests: what the test plugins report, a temporary plugins
// folder filled with copies of the plugin libraries built in the tree, and a
// way to let posted events run.

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace sdk_test {

// The lines the test plugins reported through tst_sdk_record(), in order.
QStringList &recorded();

// Delivers posted events until the queue stays empty.
void settle();

// True while a file whose path contains `path` is mapped into this process
// (a loaded library).
bool is_mapped(const QString &path);

// "<test plugin dir>/<id><suffix>": one variant of tests/sdk/plugins/test_plugin.c.
QString test_plugin(const QString &id);

// Captures the messages of the "corv.sdk" category (debug lines included)
// while it exists; every message still reaches the test's own handler.
class MessageLog
{
public:
    MessageLog();
    ~MessageLog();
    MessageLog(const MessageLog &) = delete;
    MessageLog &operator=(const MessageLog &) = delete;

    QStringList lines;
};

// A temporary folder laid out like the application's "plugins" folder.
class PluginFolder
{
public:
    PluginFolder();

    QString path() const { return m_dir.path(); }

    // Copies a library into "<path>/<folder>/<file name><suffix>"; the file
    // name defaults to the folder's. Returns the folder's path.
    QString add(const QString &library, const QString &folder, const QString &file_name = {});
    // Copies a whole plugin folder (library, locale files) as "<path>/<folder>".
    QString add_folder(const QString &source, const QString &folder);

private:
    QTemporaryDir m_dir;
};

} // namespace sdk_test
