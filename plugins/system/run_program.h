#pragma once

// "Run Program": starts a program for each event from its parent and passes
// the event on once the program started or, when it waits, once it ended,
// with what it printed and how it ended. Everything runs on the main thread
// through QProcess's signals; nothing here waits for a program.

#include <corvane/corvane_sdk.h>

#include <QByteArray>
#include <QString>

#include <deque>
#include <memory>
#include <vector>

namespace corv_system {

inline constexpr const char *kRunProgramId = "io.marrowfield.system.run";
// What each of stdout and stderr keeps of a program's output.
inline constexpr qsizetype kOutputCap = 64 * 1024;
// Events waiting for a free slot at most, per node; more are dropped.
inline constexpr size_t kQueueLimit = 1000;

class RunProgramNode
{
public:
    explicit RunProgramNode(corv_node *node);
    ~RunProgramNode(); // ends every program it started
    RunProgramNode(const RunProgramNode &) = delete;
    RunProgramNode &operator=(const RunProgramNode &) = delete;

    // The settings from the node's store (a project being opened), then
    // from its panel whenever that is built.
    void load(corv_store *store);
    void build(cui_generate_context *context);
    void on_event(corv_event *event); // owns event
    void instance_name(char *buffer) const;

    // The rack stopped: ends the node's programs and drops the events that
    // wait for a slot, without passing anything on.
    void stop();
    // Stops every node (the plugin unloads).
    static void end_all();

private:
    struct Run;
    struct Settings {
        QString program;
        QString arguments;
        bool shell = false;
        QString folder;
        QString environment;
        bool wait = true;
        double timeout = 60.0;
        int limit = 4;
        bool queue = true;
    };

    void start(corv_event *event);
    void output(Run &run, bool error_channel);
    void complete(Run &run, const QString &error);
    void end(Run &run);
    void pass_on(corv_event *event);

    corv_node *m_node;
    corv_sink *m_out;
    Settings m_settings;
    std::vector<std::unique_ptr<Run>> m_running;
    std::vector<std::unique_ptr<Run>> m_done; // freed outside their own signals
    std::deque<corv_event *> m_queue;
    bool m_warned_queue = false;
};

} // namespace corv_system
