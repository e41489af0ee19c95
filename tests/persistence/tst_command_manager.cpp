#include "model/property.h"
#include "persistence/command_manager.h"
#include "persistence/property_commands.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using namespace corv;
using engine::Command;
using engine::CommandPtr;

namespace {

// Appends its word to a log; the inverse takes the last word off again.
// Undoing a word records "-word", so the log shows the order of every step.
class Word : public Command
{
public:
    Word(QStringList *state, QStringList *trace, QString word, std::function<void()> during = {})
        : m_state(state), m_trace(trace), m_word(std::move(word)), m_during(std::move(during))
    {
    }
    CommandPtr apply() override
    {
        m_state->append(m_word);
        m_trace->append(m_word);
        if (m_during)
            m_during();
        return std::make_unique<Unword>(m_state, m_trace, m_word);
    }

private:
    class Unword : public Command
    {
    public:
        Unword(QStringList *state, QStringList *trace, QString word)
            : m_state(state), m_trace(trace), m_word(std::move(word))
        {
        }
        CommandPtr apply() override
        {
            m_state->removeLast();
            m_trace->append(u'-' + m_word);
            return std::make_unique<Word>(m_state, m_trace, m_word);
        }

    private:
        QStringList *m_state;
        QStringList *m_trace;
        QString m_word;
    };

    QStringList *m_state;
    QStringList *m_trace;
    QString m_word;
    std::function<void()> m_during;
};

// A command that finds nothing to do.
class Nothing : public Command
{
public:
    CommandPtr apply() override { return nullptr; }
};

} // namespace

class tst_CommandManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(QStringLiteral(".*"))); }

    void new_edit_drops_the_redo_tail();
    void undo_and_redo_at_the_ends_do_nothing();
    void nested_commands_are_one_step();
    void merged_writes_are_one_step();
    void run_ends_with_commit_other_edits_and_undo();
    void merged_write_that_changes_nothing_starts_no_run();
};

void tst_CommandManager::new_edit_drops_the_redo_tail()
{
    QStringList state, trace;
    engine::CommandManager manager;
    manager.execute(std::make_unique<Word>(&state, &trace, "first"));
    manager.execute(std::make_unique<Word>(&state, &trace, "second"));
    manager.undo();
    QVERIFY(manager.can_redo());
    manager.execute(std::make_unique<Word>(&state, &trace, "third"));
    QCOMPARE(manager.history_size(), std::size_t(2));
    QVERIFY(!manager.can_redo());
    QCOMPARE(state, (QStringList{"first", "third"}));

    manager.undo();
    manager.undo();
    QVERIFY(state.isEmpty());
    manager.redo();
    manager.redo();
    QCOMPARE(state, (QStringList{"first", "third"}));
    QCOMPARE(trace, (QStringList{"first", "second", "-second", "third", "-third", "-first", "first", "third"}));
}

void tst_CommandManager::undo_and_redo_at_the_ends_do_nothing()
{
    QStringList state, trace;
    engine::CommandManager manager;
    QSignalSpy changed(&manager, &engine::CommandManager::changed);
    manager.undo();
    manager.redo();
    QCOMPARE(changed.count(), 0);

    manager.execute(std::make_unique<Word>(&state, &trace, "a"));
    QCOMPARE(changed.count(), 1);
    manager.redo();
    QCOMPARE(changed.count(), 1);
    manager.undo();
    manager.undo();
    QCOMPARE(changed.count(), 2);
    QCOMPARE(manager.index(), std::size_t(0));
    QCOMPARE(trace, (QStringList{"a", "-a"}));
}

void tst_CommandManager::nested_commands_are_one_step()
{
    QStringList state, trace;
    engine::CommandManager manager;
    manager.execute(std::make_unique<Word>(&state, &trace, "outer", [&] {
        QVERIFY(manager.is_recording());
        manager.execute(std::make_unique<Word>(&state, &trace, "inner1"));
        manager.execute(std::make_unique<Nothing>());
        manager.execute(std::make_unique<Word>(&state, &trace, "inner2"));
    }));
    QVERIFY(!manager.is_recording());
    QCOMPARE(manager.history_size(), std::size_t(1));
    QCOMPARE(state, (QStringList{"outer", "inner1", "inner2"}));

    manager.undo();
    QVERIFY(state.isEmpty());
    manager.redo();
    QCOMPARE(state, (QStringList{"outer", "inner1", "inner2"}));
    // Undone last-first; redone in the original order, without running the
    // outer command's nested executes a second time.
    QCOMPARE(trace.mid(3), (QStringList{"-inner2", "-inner1", "-outer", "outer", "inner1", "inner2"}));
    QCOMPARE(manager.history_size(), std::size_t(1));
}

void tst_CommandManager::merged_writes_are_one_step()
{
    model::PropertyCollection prefs;
    model::StoreView(&prefs, QString()).set("name", model::Value::string("old"));
    engine::PreferencesCommandManager manager(&prefs);
    QSignalSpy changed(&manager, &engine::CommandManager::changed);

    for (const char *text : {"n", "ne", "new"})
        manager.set_value("name", model::Value::string(text), true);
    QCOMPARE(manager.history_size(), std::size_t(1));
    QVERIFY(manager.has_pending());
    QCOMPARE(changed.count(), 3);
    QCOMPARE(prefs.find("name")->value().to_string(), QByteArray("new"));

    manager.undo();
    QVERIFY(!manager.has_pending());
    QCOMPARE(prefs.find("name")->value().to_string(), QByteArray("old"));
    manager.redo();
    QCOMPARE(prefs.find("name")->value().to_string(), QByteArray("new"));
}

void tst_CommandManager::run_ends_with_commit_other_edits_and_undo()
{
    model::PropertyCollection prefs;
    engine::PreferencesCommandManager manager(&prefs);
    const auto value = [&](const char *key) { return prefs.find(key)->value().to_int(); };

    manager.set_value("a", model::Value::integer(1), true);
    manager.set_value("a", model::Value::integer(2), true);
    manager.commit_pending();
    manager.set_value("a", model::Value::integer(3), true); // a new run
    QCOMPARE(manager.history_size(), std::size_t(2));

    manager.set_value("b", model::Value::integer(1), true); // another key ends the run
    manager.set_value("a", model::Value::integer(4), true);
    QCOMPARE(manager.history_size(), std::size_t(4));

    manager.set_value("a", model::Value::integer(5)); // an unmerged write is its own step
    manager.set_value("a", model::Value::integer(6), true);
    QCOMPARE(manager.history_size(), std::size_t(6));

    manager.undo(); // 6 -> 5
    QCOMPARE(value("a"), 5);
    // The undo ended the run: this write must not join the undone step.
    manager.set_value("a", model::Value::integer(7), true);
    QCOMPARE(manager.history_size(), std::size_t(6));
    QVERIFY(!manager.can_redo());
    manager.undo();
    QCOMPARE(value("a"), 5);

    while (manager.can_undo())
        manager.undo();
    QVERIFY(prefs.find("a")->value().is_none());
    QVERIFY(prefs.find("b")->value().is_none());
    while (manager.can_redo())
        manager.redo();
    QCOMPARE(value("a"), 7);
    QCOMPARE(value("b"), 1);
}

void tst_CommandManager::merged_write_that_changes_nothing_starts_no_run()
{
    model::PropertyCollection prefs;
    model::StoreView(&prefs, QString()).set("x", model::Value::integer(1));
    engine::PreferencesCommandManager manager(&prefs);
    manager.set_value("x", model::Value::integer(1), true);
    QVERIFY(!manager.has_pending());
    QCOMPARE(manager.history_size(), std::size_t(0));
    // Otherwise this write would change the value with no step to undo it.
    manager.set_value("x", model::Value::integer(2), true);
    QCOMPARE(manager.history_size(), std::size_t(1));
    manager.undo();
    QCOMPARE(prefs.find("x")->value().to_int(), 1);
}

QTEST_GUILESS_MAIN(tst_CommandManager)
#include "tst_command_manager.moc"
