// On-file-changed, read text file and write text file against real files in
// a temporary folder, in real racks on the real event loop.

#include "node_rig.h"
#include "tests/test_platform.h"
#include "tests/test_files.h"

#include <QDir>
#include <QFile>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>

using model::Value;

namespace {

using corv::test::read_file;
using corv::test::write_file;

// The last event a probe saw, as "key=value;..." with the folder cut out.
QByteArray last_keys(const Rig &rig, const QString &probe, const QString &folder)
{
    const QList<Hit> hits = rig.hits_at(probe);
    return hits.isEmpty() ? QByteArray()
                          : QByteArray(hits.last().keys).replace(folder.toUtf8() + '/', "");
}

} // namespace

class TstFileNodes : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    void file_change_starts_an_event_data()
    {
        QTest::addColumn<bool>("read");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("keys");
        QTest::newRow("reading") << true << "When a.txt changes, read it into content"
                                 << QByteArray("file=a.txt;content=two");
        QTest::newRow("not reading") << false << "When a.txt changes" << QByteArray("file=a.txt");
    }

    // A change on disk starts an event in the children, with the content
    // when reading is on.
    void file_change_starts_an_event()
    {
        QFETCH(bool, read);
        QFETCH(QString, name);
        QFETCH(QByteArray, keys);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("a.txt"));
        write_file(path, "one");
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid node =
            rig.add_node(rack, "io.marrowfield.onfilechanged",
                         {{"!path", Value::string(path.toUtf8())}, {"read", Value::boolean(read)}});
        rig.add_probe(node, QStringLiteral("inside"));
        rig.open();
        QCOMPARE(rig.name(node), name);
        write_file(path, "two");
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), keys);
    }

    // A new path moves the watch; an editor's save by rename, or a delete
    // and a new file, keeps the file watched.
    void the_watch_follows_the_file()
    {
        QTemporaryDir dir;
        const QString a = dir.filePath(QStringLiteral("a.txt"));
        const QString b = dir.filePath(QStringLiteral("b.txt"));
        write_file(a, "a0");
        write_file(b, "b0");
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid node = rig.add_node(rack, "io.marrowfield.onfilechanged",
                                        {{"!path", Value::string(a.toUtf8())}});
        rig.add_probe(node, QStringLiteral("inside"));
        rig.open();
        rig.set(node, QStringLiteral("!path"), Value::string(b.toUtf8()));
        rig.turns(5);
        write_file(a, "a1");
        write_file(b, "b1");
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt;content=b1"));
        rig.wait(50);
        for (const Hit &hit : rig.hits_at("inside"))
            QVERIFY2(!hit.keys.contains("a.txt"), hit.keys.constData());

        // Saved the way many editors save: a new file renamed over the old.
        const QString temporary = dir.filePath(QStringLiteral("b.txt.new"));
        write_file(temporary, "b2");
        QVERIFY(corv::test::rename_over(temporary, b));
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt;content=b2"));
        write_file(b, "b3");
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt;content=b3"));

        // Gone, then written anew.
        QVERIFY(QFile::remove(b));
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt"));
        write_file(b, "b4");
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt;content=b4"));
        write_file(b, "b5");
        QTRY_COMPARE(last_keys(rig, "inside", dir.path()), QByteArray("file=b.txt;content=b5"));
    }

    // The content goes into the key; a missing file leaves the event as it
    // was, and it goes on either way.
    void read_text()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("in.txt"));
        write_file(path, "line 1\nline 2\n");
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid present = rig.add_node(rack, "io.marrowfield.readtext",
                                           {{"!path", Value::string(path.toUtf8())}});
        rig.add_node(rack, "io.marrowfield.readtext",
                     {{"!path", Value::string(dir.filePath(QStringLiteral("none.txt")).toUtf8())},
                      {"!key", Value::string("other")}});
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        QCOMPARE(rig.name(present), QStringLiteral("Read in.txt into text"));
        rig.post(rack, "1");
        QTRY_COMPARE(rig.hits_at("after").size(), 1);
        QCOMPARE(rig.hits_at("after")[0].keys, QByteArray("id=1;text=line 1\nline 2\n"));
    }

    // The template's result replaces the file's content; an empty template
    // empties it on every event.
    void write_text_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QByteArray>("written");
        QTest::newRow("template") << QByteArray("id {id}, twice {id * 2}\n")
                                  << QByteArray("id 21, twice 42\n");
        QTest::newRow("plain text") << QByteArray("plain") << QByteArray("plain");
        QTest::newRow("empty") << QByteArray("") << QByteArray("");
    }

    void write_text()
    {
        QFETCH(QByteArray, value);
        QFETCH(QByteArray, written);
        // A text file: Windows ends its lines with "\r\n".
        if (QSysInfo::kernelType() == QLatin1StringView("winnt"))
            written.replace("\n", "\r\n");
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("out.txt"));
        write_file(path, "old content that is longer");
        Rig rig;
        const QUuid rack = rig.add_rack(QStringLiteral("R"));
        const QUuid node = rig.add_node(
            rack, "io.marrowfield.writetext",
            {{"!path", Value::string(path.toUtf8())}, {"!value", Value::string(value)}});
        rig.add_probe(rack, QStringLiteral("after"));
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Write out.txt"));
        rig.post(rack, "21");
        QTRY_COMPARE(rig.seen("after"), QList<QByteArray>{"21"});
        QCOMPARE(read_file(path), written);
        write_file(path, "again");
        rig.post(rack, "21");
        QTRY_COMPARE(rig.seen("after").size(), 2);
        QCOMPARE(read_file(path), written);
    }
};

QTEST_GUILESS_MAIN(TstFileNodes)
#include "tst_file_nodes.moc"
