#include "persistence/command_manager.h"

#include "persistence/property_commands.h"

#include <algorithm>

namespace corv::engine {

CommandManager::CommandManager(QObject *parent) : QObject(parent) {}

CommandManager::~CommandManager() = default;

CommandPtr CommandManager::run(Command &command)
{
    // Slot 0 takes the command's own inverse; edits executed while it applies
    // append their slots behind it, in the order they ran.
    std::vector<CommandPtr> recording;
    recording.emplace_back();
    std::vector<CommandPtr> *const outer = m_recording;
    m_recording = &recording;
    CommandPtr inverse = command.apply();
    m_recording = outer;
    recording.front() = std::move(inverse);

    std::erase(recording, nullptr);
    if (recording.empty())
        return nullptr;
    if (recording.size() == 1)
        return std::move(recording.front());
    // Undo runs back to front: the last nested edit first, the outer last.
    std::reverse(recording.begin(), recording.end());
    return std::make_unique<CompositeCommand>(std::move(recording));
}

void CommandManager::execute(CommandPtr command, const QByteArray &name)
{
    if (!command)
        return;
    if (m_recording) {
        std::vector<CommandPtr> &list = *m_recording;
        list.emplace_back();
        const std::size_t slot = list.size() - 1;
        CommandPtr inverse = command->apply();
        list[slot] = std::move(inverse);
        return;
    }

    commit_pending();
    CommandPtr inverse = run(*command);
    command.reset();
    // An edit that changed nothing is not an edit: the undone edits stay
    // redoable and nobody hears of it.
    if (!inverse)
        return;
    m_history.erase(m_history.begin() + std::ptrdiff_t(m_index), m_history.end());
    m_history.push_back({std::move(inverse), name});
    ++m_index;
    Q_EMIT changed();
}

void CommandManager::execute_merged(std::unique_ptr<SetPropertyCommand> command, const QByteArray &name)
{
    if (!command)
        return;
    if (m_recording) {
        execute(std::move(command));
        return;
    }
    auto *run_target = dynamic_cast<SetPropertyCommand *>(m_pending.get());
    if (run_target && run_target->same_target(*command)) {
        // The entry recorded for the run's first write restores the value from
        // before the run, and undoing it captures the latest value for redo,
        // so a later write needs no entry of its own.
        if (command->apply())
            Q_EMIT changed();
        return;
    }

    commit_pending();
    std::unique_ptr<SetPropertyCommand> follow = command->with_value(command->value());
    const std::size_t before = m_index;
    execute(std::move(command), name);
    if (m_index > before)
        m_pending = std::move(follow);
}

void CommandManager::commit_pending()
{
    if (!m_pending)
        return;
    CommandPtr pending = std::move(m_pending);
    pending->commit();
}

void CommandManager::undo()
{
    if (m_index == 0 || m_recording)
        return;
    commit_pending();
    CommandPtr &entry = m_history[m_index - 1].command;
    CommandPtr redo = run(*entry);
    entry = redo ? std::move(redo) : std::make_unique<NoopCommand>();
    --m_index;
    Q_EMIT changed();
}

void CommandManager::redo()
{
    if (m_index == m_history.size() || m_recording)
        return;
    commit_pending();
    CommandPtr &entry = m_history[m_index].command;
    CommandPtr undo = run(*entry);
    entry = undo ? std::move(undo) : std::make_unique<NoopCommand>();
    ++m_index;
    Q_EMIT changed();
}

void CommandManager::clear()
{
    if (m_recording)
        return;
    commit_pending();
    m_history.clear();
    m_index = 0;
    Q_EMIT changed();
}

PropertyCollectionCommandManager::PropertyCollectionCommandManager(model::PropertyCollection *collection,
                                                                   QObject *parent)
    : CommandManager(parent), m_collection(collection)
{
}

PropertyCollectionCommandManager::~PropertyCollectionCommandManager() = default;

void PropertyCollectionCommandManager::set_value(const QString &full_key, const model::Value &value, bool merge,
                                                  const QByteArray &name)
{
    auto command = std::make_unique<SetCollectionPropertyCommand>(m_collection, full_key, value);
    if (merge)
        execute_merged(std::move(command), name);
    else
        execute(std::move(command), name);
}

} // namespace corv::engine
