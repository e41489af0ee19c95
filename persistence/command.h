#pragma once

#include <memory>
#include <vector>

namespace corv::engine {

class Command;
using CommandPtr = std::unique_ptr<Command>;

// One edit. Applying it changes the model and hands back the command that
// undoes exactly that change, so undo and redo are the same operation run in
// two directions.
class Command
{
public:
    Command() = default;
    virtual ~Command();
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    // Ends an edit that is still being gathered (the pending edit of a
    // command manager). Other commands have nothing to finish.
    virtual void commit();

    // Performs the change and returns its inverse, or null when the command
    // found nothing to change (its target is gone, an index is out of range,
    // the value is already set).
    [[nodiscard]] virtual CommandPtr apply() = 0;
};

// Several commands run as one, front to back. Its inverse holds the members'
// inverses back to front, so the members are undone last-first.
class CompositeCommand : public Command
{
public:
    CompositeCommand() = default;
    explicit CompositeCommand(std::vector<CommandPtr> commands);
    ~CompositeCommand() override;

    void append(CommandPtr command);
    const std::vector<CommandPtr> &commands() const { return m_commands; }
    bool empty() const { return m_commands.empty(); }

    [[nodiscard]] CommandPtr apply() override;

private:
    std::vector<CommandPtr> m_commands;
};

// The inverse of a change that can no longer be made; keeps a history entry
// in place without touching anything.
class NoopCommand : public Command
{
public:
    [[nodiscard]] CommandPtr apply() override;
};

} // namespace corv::engine
