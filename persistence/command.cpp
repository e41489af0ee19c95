#include "persistence/command.h"

#include <algorithm>

namespace corv::engine {

Command::~Command() = default;

void Command::commit() {}

CompositeCommand::CompositeCommand(std::vector<CommandPtr> commands) : m_commands(std::move(commands))
{
    std::erase(m_commands, nullptr);
}

CompositeCommand::~CompositeCommand() = default;

void CompositeCommand::append(CommandPtr command)
{
    if (command)
        m_commands.push_back(std::move(command));
}

CommandPtr CompositeCommand::apply()
{
    std::vector<CommandPtr> inverses;
    inverses.reserve(m_commands.size());
    for (CommandPtr &command : m_commands) {
        if (CommandPtr inverse = command->apply())
            inverses.push_back(std::move(inverse));
    }
    if (inverses.empty())
        return nullptr;
    std::reverse(inverses.begin(), inverses.end());
    return std::make_unique<CompositeCommand>(std::move(inverses));
}

CommandPtr NoopCommand::apply()
{
    return std::make_unique<NoopCommand>();
}

} // namespace corv::engine
