// The schedule source on the real event loop with short periods: a fixed
// rate without drift or bursts, once after opening, daily at a time of day,
// and a restart when a setting changes.

#include "node_rig.h"
#include "tests/test_platform.h"

#include <QDateTime>
#include <QTest>
#include <QThread>

using model::Value;

namespace {

constexpr qint64 kLate = 40;

QUuid schedule_rack(Rig &rig, const Settings &settings, QUuid *node)
{
    const QUuid rack = rig.add_rack(QStringLiteral("R"));
    *node = rig.add_node(rack, "io.marrowfield.onschedule", settings);
    rig.add_probe(*node, QStringLiteral("inside"));
    return rack;
}

QByteArray count_of(const Hit &hit)
{
    return hit.keys.mid(hit.keys.indexOf(";count=") + 7);
}

} // namespace

class TstScheduleNode : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fail_on_warnings(); }

    // Firing k comes at start + k x interval; a stall gives one firing, not
    // a burst, and the grid goes on.
    void every_keeps_its_rate()
    {
        if (corv::test::running_under_wine())
            QSKIP("Wine wakes timers up to a tenth of a second late on a busy machine; Windows' are precise");
        Rig rig;
        QUuid node;
        schedule_rack(rig, {{"!seconds", Value::floating(0.1)}}, &node);
        const qint64 start = rig.now();
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Every 0.1 s"));
        QVERIFY(rig.labels(node).value(0).startsWith(u"Next: "));
        QTRY_COMPARE(rig.hits_at("inside").size(), 3);
        const qint64 first = rig.hits_at("inside")[0].ms;
        QVERIFY2(first - start >= 98, qPrintable(QString::number(first - start)));
        for (int k = 0; k < 3; ++k) {
            const Hit hit = rig.hits_at("inside")[k];
            QCOMPARE(count_of(hit), QByteArray::number(k + 1));
            // Early against the grid (a late first firing moves no other),
            // late against the first.
            QVERIFY2(hit.ms - start >= 100 * (k + 1) - 2 && hit.ms - first <= 100 * k + kLate,
                     qPrintable(QString::number(hit.ms - first)));
            const QByteArray time = hit.keys.mid(5, hit.keys.indexOf(';') - 5);
            QVERIFY2(QDateTime::fromString(QString::fromLatin1(time), Qt::ISODate).isValid(),
                     time.constData());
        }
        QThread::msleep(350); // the loop stalls over three due times
        rig.wait(30);
        QVERIFY(rig.hits_at("inside").size() <= 4);
        QTRY_COMPARE(rig.hits_at("inside").size(), 5);
        const qint64 fifth = rig.hits_at("inside")[4].ms - first;
        const qint64 off_grid = (fifth + 50) % 100 - 50;
        QVERIFY2(off_grid >= -kLate && off_grid <= kLate, qPrintable(QString::number(fifth)));
    }

    void once_after_open()
    {
        Rig rig;
        QUuid node;
        schedule_rack(rig, {{"!mode", Value::integer(2)}, {"!seconds", Value::floating(0.15)}},
                      &node);
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Once, 0.15 s after opening"));
        QTRY_COMPARE(rig.hits_at("inside").size(), 1);
        rig.wait(350);
        QCOMPARE(rig.hits_at("inside").size(), 1);
        QCOMPARE(rig.labels(node), QStringList{QStringLiteral("Not scheduled")});
    }

    // The next second on the wall clock; a time that is no time never fires.
    void daily_at()
    {
        const QByteArray text =
            QTime::currentTime().addSecs(1).toString(QStringLiteral("HH:mm:ss")).toLatin1();
        const QTime at = QTime::fromString(QString::fromLatin1(text), QStringLiteral("HH:mm:ss"));
        Rig rig;
        QUuid node, broken;
        const QUuid rack = schedule_rack(
            rig, {{"!mode", Value::integer(1)}, {"!time", Value::string(text)}}, &node);
        broken = rig.add_node(rack, "io.marrowfield.onschedule",
                              {{"!mode", Value::integer(1)}, {"!time", Value::string("25:99")}});
        rig.add_probe(broken, QStringLiteral("broken"));
        rig.open();
        QCOMPARE(rig.name(node), QStringLiteral("Daily at ") + QString::fromLatin1(text));
        QCOMPARE(rig.labels(broken), QStringList{QStringLiteral("Not scheduled")});
        QTRY_COMPARE_WITH_TIMEOUT(rig.hits_at("inside").size(), 1, 2500);
        QVERIFY(QTime::currentTime() >= at || QTime::currentTime() < QTime(0, 0, 2));
        QVERIFY(rig.labels(node).value(0).startsWith(u"Next: "));
        QVERIFY(rig.hits_at("broken").isEmpty());
    }

    // A changed interval starts the schedule anew from the change.
    void a_changed_setting_restarts()
    {
        Rig rig;
        QUuid node;
        schedule_rack(rig, {{"!seconds", Value::floating(30.0)}}, &node);
        rig.open();
        rig.wait(50);
        const qint64 changed = rig.now();
        rig.set(node, QStringLiteral("!seconds"), Value::floating(0.1));
        QTRY_COMPARE(rig.hits_at("inside").size(), 1);
        QVERIFY(rig.hits_at("inside")[0].ms - changed <= 100 + kLate);
        QCOMPARE(rig.name(node), QStringLiteral("Every 0.1 s"));
    }
};

QTEST_GUILESS_MAIN(TstScheduleNode)
#include "tst_schedule_node.moc"
