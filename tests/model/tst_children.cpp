#include "model/node.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using corv::model::Children;

namespace {
// Fixed ids named by one letter, so lists can be written as "abc".
QUuid letter_id(QChar c)
{
    return QUuid(0x1000u + c.unicode(), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

QString letters(const Children &list)
{
    QString out;
    for (const QUuid &id : list.ids())
        out += QChar(char16_t(id.data1 - 0x1000u));
    return out;
}

void fill(Children &list, const QString &ids)
{
    QSignalBlocker block(&list);
    for (QChar c : ids)
        list.insert(list.count(), letter_id(c));
}

QString name_of(const Children *list)
{
    return list ? list->objectName() : QStringLiteral("null");
}
} // namespace

class TstChildren : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void insert_data()
    {
        QTest::addColumn<QString>("initial");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("expected");
        QTest::newRow("into empty") << "" << 0 << "x";
        QTest::newRow("front") << "abc" << 0 << "xabc";
        QTest::newRow("middle") << "abc" << 1 << "axbc";
        QTest::newRow("append at count") << "abc" << 3 << "abcx";
    }

    void insert()
    {
        QFETCH(QString, initial);
        QFETCH(int, index);
        QFETCH(QString, expected);

        Children list;
        fill(list, initial);
        const QUuid x = letter_id(u'x');
        QString before_state;
        QString after_state;
        connect(&list, &Children::before_added, this, [&] { before_state = letters(list); });
        connect(&list, &Children::added, this, [&] { after_state = letters(list); });
        QSignalSpy before(&list, &Children::before_added);
        QSignalSpy after(&list, &Children::added);

        list.insert(std::size_t(index), x);

        QCOMPARE(letters(list), expected);
        QCOMPARE(before_state, initial);
        QCOMPARE(after_state, expected);
        QCOMPARE(before.count(), 1);
        QCOMPARE(after.count(), 1);
        for (const QSignalSpy *spy : {&before, &after}) {
            QCOMPARE(spy->at(0).at(0).value<QUuid>(), x);
            QCOMPARE(spy->at(0).at(1).value<std::size_t>(), std::size_t(index));
        }
    }

    void remove_data()
    {
        QTest::addColumn<QString>("initial");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("expected");
        QTest::newRow("only") << "a" << 0 << "";
        QTest::newRow("front") << "abc" << 0 << "bc";
        QTest::newRow("middle") << "abc" << 1 << "ac";
        QTest::newRow("last") << "abc" << 2 << "ab";
    }

    void remove()
    {
        QFETCH(QString, initial);
        QFETCH(int, index);
        QFETCH(QString, expected);

        Children list;
        fill(list, initial);
        const QUuid id = letter_id(initial.at(index));
        QString before_state;
        QString after_state;
        connect(&list, &Children::before_removed, this, [&] { before_state = letters(list); });
        connect(&list, &Children::removed, this, [&] { after_state = letters(list); });
        QSignalSpy before(&list, &Children::before_removed);
        QSignalSpy after(&list, &Children::removed);

        list.remove(std::size_t(index));

        QCOMPARE(letters(list), expected);
        QCOMPARE(before_state, initial);
        QCOMPARE(after_state, expected);
        for (const QSignalSpy *spy : {&before, &after}) {
            QCOMPARE(spy->count(), 1);
            QCOMPARE(spy->at(0).at(0).value<QUuid>(), id);
            QCOMPARE(spy->at(0).at(1).value<std::size_t>(), std::size_t(index));
        }
    }

    // Moves within one list count to_index before the id is taken out, as
    // rack moves do; the inverse move restores the list.
    void move_data()
    {
        QTest::addColumn<QString>("initial");
        QTest::addColumn<int>("from");
        QTest::addColumn<int>("to");
        QTest::addColumn<QString>("expected");
        QTest::newRow("0 to 2 of 3") << "abc" << 0 << 2 << "bac";
        QTest::newRow("2 to 0 of 3") << "abc" << 2 << 0 << "cab";
        QTest::newRow("0 to end") << "abc" << 0 << 3 << "bca";
        QTest::newRow("to itself") << "abc" << 1 << 1 << "abc";
        QTest::newRow("to next, no change") << "abc" << 1 << 2 << "abc";
        QTest::newRow("1 to 4 of 5") << "abcde" << 1 << 4 << "acdbe";
    }

    void move()
    {
        QFETCH(QString, initial);
        QFETCH(int, from);
        QFETCH(int, to);
        QFETCH(QString, expected);

        Children list;
        fill(list, initial);
        QString before_state;
        connect(&list, &Children::before_moved, this, [&] { before_state = letters(list); });
        QSignalSpy before(&list, &Children::before_moved);
        QSignalSpy after(&list, &Children::moved);

        list.move(std::size_t(from), std::size_t(to));
        QCOMPARE(letters(list), expected);
        QCOMPARE(before_state, initial);
        for (const QSignalSpy *spy : {&before, &after}) {
            QCOMPARE(spy->count(), 1);
            QCOMPARE(spy->at(0).at(0).value<std::size_t>(), std::size_t(from));
            QCOMPARE(spy->at(0).at(1).value<std::size_t>(), std::size_t(to));
        }

        const auto [back_from, back_to] = corv::model::inverse_move(from, to);
        list.move(back_from, back_to);
        QCOMPARE(letters(list), initial);
    }

    void external_move_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("dest");
        QTest::addColumn<int>("src_index");
        QTest::addColumn<int>("dest_index");
        QTest::addColumn<QString>("source_after");
        QTest::addColumn<QString>("dest_after");
        QTest::newRow("middle to front") << "abc" << "xy" << 1 << 0 << "ac" << "bxy";
        QTest::newRow("append at count") << "abc" << "xy" << 0 << 2 << "bc" << "xya";
        QTest::newRow("into empty") << "a" << "" << 0 << 0 << "" << "a";
    }

    // The pair of external signals stands around a plain remove and insert,
    // and the order holds across the two lists.
    void external_move()
    {
        QFETCH(QString, source);
        QFETCH(QString, dest);
        QFETCH(int, src_index);
        QFETCH(int, dest_index);
        QFETCH(QString, source_after);
        QFETCH(QString, dest_after);

        Children src;
        Children dst;
        src.setObjectName(QStringLiteral("src"));
        dst.setObjectName(QStringLiteral("dst"));
        fill(src, source);
        fill(dst, dest);
        const QUuid id = letter_id(source.at(src_index));
        const QString moved = source.at(src_index);

        QStringList trace;
        auto state = [&] { return letters(src) + u'|' + letters(dst); };
        for (Children *list : {&src, &dst}) {
            const QString n = list->objectName();
            connect(list, &Children::external_move_emitted, this,
                    [&, n](std::size_t s, Children *d, std::size_t di) {
                        trace << QStringLiteral("%1 external_move_emitted %2 %3 %4 [%5]")
                                     .arg(n).arg(s).arg(name_of(d)).arg(di).arg(state());
                    });
            connect(list, &Children::before_removed, this,
                    [&, n](const QUuid &u, std::size_t i) {
                        trace << QStringLiteral("%1 before_removed %2 %3 [%4]")
                                     .arg(n, u == id ? moved : QStringLiteral("?")).arg(i)
                                     .arg(state());
                    });
            connect(list, &Children::removed, this, [&, n](const QUuid &u, std::size_t i) {
                trace << QStringLiteral("%1 removed %2 %3 [%4]")
                             .arg(n, u == id ? moved : QStringLiteral("?")).arg(i).arg(state());
            });
            connect(list, &Children::before_added, this, [&, n](const QUuid &u, std::size_t i) {
                trace << QStringLiteral("%1 before_added %2 %3 [%4]")
                             .arg(n, u == id ? moved : QStringLiteral("?")).arg(i).arg(state());
            });
            connect(list, &Children::added, this, [&, n](const QUuid &u, std::size_t i) {
                trace << QStringLiteral("%1 added %2 %3 [%4]")
                             .arg(n, u == id ? moved : QStringLiteral("?")).arg(i).arg(state());
            });
            connect(list, &Children::external_move_received, this,
                    [&, n](Children *s, std::size_t si, std::size_t di) {
                        trace << QStringLiteral("%1 external_move_received %2 %3 %4 [%5]")
                                     .arg(n, name_of(s)).arg(si).arg(di).arg(state());
                    });
            connect(list, &Children::before_moved, this, [&] { trace << QStringLiteral("moved?"); });
        }

        src.move_to(std::size_t(src_index), &dst, std::size_t(dest_index));

        const QString start = source + u'|' + dest;
        const QString removed = source_after + u'|' + dest;
        const QString end = source_after + u'|' + dest_after;
        const QStringList expected{
            QStringLiteral("src external_move_emitted %1 dst %2 [%3]")
                .arg(src_index).arg(dest_index).arg(start),
            QStringLiteral("src before_removed %1 %2 [%3]").arg(moved).arg(src_index).arg(start),
            QStringLiteral("src removed %1 %2 [%3]").arg(moved).arg(src_index).arg(removed),
            QStringLiteral("dst before_added %1 %2 [%3]").arg(moved).arg(dest_index).arg(removed),
            QStringLiteral("dst added %1 %2 [%3]").arg(moved).arg(dest_index).arg(end),
            QStringLiteral("dst external_move_received src %1 %2 [%3]")
                .arg(src_index).arg(dest_index).arg(end),
        };
        QCOMPARE(trace, expected);
    }

    // The signals carry the list pointers themselves, usable through a spy.
    void external_move_spy_arguments()
    {
        Children src;
        Children dst;
        fill(src, QStringLiteral("ab"));
        QSignalSpy emitted(&src, &Children::external_move_emitted);
        QSignalSpy received(&dst, &Children::external_move_received);
        QSignalSpy src_received(&src, &Children::external_move_received);
        QSignalSpy dst_emitted(&dst, &Children::external_move_emitted);

        src.move_to(1, &dst, 0);

        QCOMPARE(emitted.count(), 1);
        QCOMPARE(emitted.at(0).at(0).value<std::size_t>(), std::size_t(1));
        QCOMPARE(emitted.at(0).at(1).value<Children *>(), &dst);
        QCOMPARE(emitted.at(0).at(2).value<std::size_t>(), std::size_t(0));
        QCOMPARE(received.count(), 1);
        QCOMPARE(received.at(0).at(0).value<Children *>(), &src);
        QCOMPARE(received.at(0).at(1).value<std::size_t>(), std::size_t(1));
        QCOMPARE(received.at(0).at(2).value<std::size_t>(), std::size_t(0));
        QCOMPARE(src_received.count(), 0);
        QCOMPARE(dst_emitted.count(), 0);
        QCOMPARE(dst.at(0), letter_id(u'b'));
    }
};

QTEST_GUILESS_MAIN(TstChildren)
#include "tst_children.moc"
