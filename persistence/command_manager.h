#pragma once

#include "persistence/command.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <cstddef>
#include <memory>
#include <vector>

namespace corv::model {
class PropertyCollection;
class Value;
} // namespace corv::model

namespace corv::engine {

class SetPropertyCommand;

// Runs every edit and keeps the history for undo and redo. The entries before
// index() undo the edits made so far; those from index() on redo undone ones.
// A command that executes other commands while it is being applied is
// recorded with them as one step. Each entry keeps the name its edit was
// given (a translation key such as "Edit.RenameRack"), which stays with it
// through undo and redo.
class CommandManager : public QObject
{
    Q_OBJECT
public:
    explicit CommandManager(QObject *parent = nullptr);
    ~CommandManager() override;

    // Runs a new edit. At the top level it drops the redo tail and records the
    // inverse as one history entry; a command that changed nothing leaves
    // the history, redo tail included, alone and emits nothing. Inside
    // another command's apply it is recorded with that command, and its name
    // is the outer command's.
    void execute(CommandPtr command, const QByteArray &name = {});

    // Runs a property write as part of an editing run (typing into a text
    // field, dragging a slider): the first write of a run is executed as a new
    // edit; later writes to the same property change the value without a new
    // entry, so the whole run is undone in one step. The run ends with
    // commit_pending(), with any other edit, and before any undo or redo.
    void execute_merged(std::unique_ptr<SetPropertyCommand> command, const QByteArray &name = {});

    // Ends the current editing run, if any.
    void commit_pending();
    bool has_pending() const { return m_pending != nullptr; }

    void undo();
    void redo();
    bool can_undo() const { return m_index > 0; }
    bool can_redo() const { return m_index < m_history.size(); }
    // The names of the edit undo() and redo() would take back or make again;
    // empty when there is none, or it was given no name.
    QByteArray undo_name() const { return m_index > 0 ? m_history[m_index - 1].name : QByteArray(); }
    QByteArray redo_name() const { return can_redo() ? m_history[m_index].name : QByteArray(); }

    std::size_t index() const { return m_index; }
    std::size_t history_size() const { return m_history.size(); }
    // True while a command is being applied (nested executes are recorded).
    bool is_recording() const { return m_recording != nullptr; }

    // Forgets the whole history (for example when another project is opened).
    void clear();

Q_SIGNALS:
    // After every execute that changed something, undo and redo (and clear).
    void changed();

private:
    // Applies command with a recording list current and returns the inverse
    // of everything it did, nested edits included; null when nothing changed.
    CommandPtr run(Command &command);

    struct Entry {
        CommandPtr command;
        QByteArray name;
    };
    std::vector<Entry> m_history;
    std::size_t m_index = 0;
    std::vector<CommandPtr> *m_recording = nullptr;
    CommandPtr m_pending;
};

// A command manager for the edits of one property collection, such as a
// plugin's preferences ("PreferencesCommandManager") while the preferences
// window is open.
class PropertyCollectionCommandManager : public CommandManager
{
    Q_OBJECT
public:
    explicit PropertyCollectionCommandManager(model::PropertyCollection *collection, QObject *parent = nullptr);
    ~PropertyCollectionCommandManager() override;

    model::PropertyCollection *collection() const { return m_collection; }

    // Writes value under full_key as an undoable edit; with merge, a run of
    // writes to the same key is one undo step (see execute_merged()).
    void set_value(const QString &full_key, const model::Value &value, bool merge = false,
                   const QByteArray &name = {});

private:
    model::PropertyCollection *m_collection;
};

using PreferencesCommandManager = PropertyCollectionCommandManager;

} // namespace corv::engine
