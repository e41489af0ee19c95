#include "run_program.h"

#include "desktop_nodes.h"
#include "process_tree.h"

#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTimer>

#include <algorithm>
#include <set>

extern corv_plugin *g_system_plugin;

namespace corv_system {

namespace {

std::set<RunProgramNode *> &all_nodes()
{
    static std::set<RunProgramNode *> nodes;
    return nodes;
}

// The non-empty lines of a multi-line field.
QStringList lines_of(const QString &text)
{
    QStringList lines;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        QString trimmed = line;
        if (trimmed.endsWith(QLatin1Char('\r')))
            trimmed.chop(1);
        if (!trimmed.isEmpty())
            lines.append(trimmed);
    }
    return lines;
}

// Cuts captured output back to whole UTF-8 characters where the cap split one.
QByteArray whole_characters(const QByteArray &bytes, bool truncated)
{
    if (!truncated)
        return bytes;
    qsizetype end = bytes.size();
    qsizetype start = end;
    while (start > 0 && start > end - 4 && (static_cast<uchar>(bytes[start - 1]) & 0xC0) == 0x80)
        --start;
    if (start > 0) {
        const uchar lead = static_cast<uchar>(bytes[start - 1]);
        const qsizetype need = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        if (end - (start - 1) < need)
            end = start - 1;
    }
    return bytes.left(end);
}

} // namespace

struct RunProgramNode::Run {
    corv_event *event = nullptr;
    bool wait = true;
    double timeout = 0;
    QProcess process;
    ProcessTree tree;
    QTimer timer;
    QByteArray out;
    QByteArray err;
    bool truncated = false;
    bool timed_out = false;
    bool completed = false;

    ~Run() { corv_event_destroy(event); }
};

RunProgramNode::RunProgramNode(corv_node *node)
    : m_node(node), m_out(corv_node_parent_sink(node))
{
    all_nodes().insert(this);
}

RunProgramNode::~RunProgramNode()
{
    all_nodes().erase(this);
    stop();
    m_done.clear();
}

void RunProgramNode::stop()
{
    // Freed on the next turn: this may run inside one of their signals.
    for (auto &run : m_running) {
        end(*run);
        m_done.push_back(std::move(run));
    }
    m_running.clear();
    for (corv_event *event : m_queue)
        corv_event_destroy(event);
    m_queue.clear();
}

void RunProgramNode::end_all()
{
    for (RunProgramNode *node : all_nodes())
        node->stop();
}

// Ends a run's program tree at once and forgets its signals.
void RunProgramNode::end(Run &run)
{
    QObject::disconnect(&run.process, nullptr, nullptr, nullptr);
    QObject::disconnect(&run.timer, nullptr, nullptr, nullptr);
    run.timer.stop();
    if (run.process.state() != QProcess::NotRunning) {
        run.tree.kill(run.process);
        run.process.waitForFinished(1000); // the group was sent SIGKILL: immediate
    }
}

void RunProgramNode::load(corv_store *store)
{
    const auto text = [store](const char *key) {
        return corv_store_has_string(store, key) ? QString::fromUtf8(corv_store_get_string(store, key))
                                                 : QString();
    };
    const auto flag = [store](const char *key, bool fallback) {
        return corv_store_has_bool(store, key) ? corv_store_get_bool(store, key) : fallback;
    };
    m_settings.program = text("!program");
    m_settings.arguments = text("!arguments");
    m_settings.shell = flag("!shell", false);
    m_settings.folder = text("!folder");
    m_settings.environment = text("!environment");
    m_settings.wait = flag("!wait", true);
    m_settings.timeout = corv_store_has_float(store, "!timeout")
                             ? std::clamp(corv_store_get_float(store, "!timeout"), 0.0, 86400.0)
                             : 60.0;
    m_settings.limit =
        corv_store_has_int(store, "!limit") ? std::clamp(corv_store_get_int(store, "!limit"), 1, 64) : 4;
    m_settings.queue = !corv_store_has_int(store, "!overflow") || corv_store_get_int(store, "!overflow") == 0;
}

void RunProgramNode::build(cui_generate_context *context)
{
    const char *overflow[2] = {corv_plugin_tr(g_system_plugin, "Run.Queue"),
                               corv_plugin_tr(g_system_plugin, "Run.Drop")};
    const QString before = m_settings.program;
    m_settings.program = QString::fromUtf8(cui_open_file(
        context, "!program", corv_plugin_tr(g_system_plugin, "Run.ProgramField"), "", ""));
    m_settings.arguments = QString::fromUtf8(cui_text_area(
        context, "!arguments", corv_plugin_tr(g_system_plugin, "Run.ArgumentsField"), ""));
    m_settings.shell = cui_checkbox(context, "!shell",
                                    corv_plugin_tr(g_system_plugin, "Run.ShellField"), false);
    m_settings.folder = QString::fromUtf8(cui_open_folder(
        context, "!folder", corv_plugin_tr(g_system_plugin, "Run.FolderField"), ""));
    m_settings.environment = QString::fromUtf8(cui_text_area(
        context, "!environment", corv_plugin_tr(g_system_plugin, "Run.EnvironmentField"), ""));
    m_settings.wait =
        cui_checkbox(context, "!wait", corv_plugin_tr(g_system_plugin, "Run.WaitField"), true);
    m_settings.timeout = cui_float(context, "!timeout",
                                   corv_plugin_tr(g_system_plugin, "Run.TimeoutField"), 60.0, 0.0,
                                   86400.0);
    m_settings.limit =
        cui_int(context, "!limit", corv_plugin_tr(g_system_plugin, "Run.LimitField"), 4, 1, 64);
    m_settings.queue = cui_radio_group(context, "!overflow",
                                       corv_plugin_tr(g_system_plugin, "Run.OverflowField"),
                                       overflow, 2, 0) == 0;
    cui_label(context, "", corv_plugin_tr(g_system_plugin, "Run.Help"));
    if (before != m_settings.program)
        corv_node_invalidate_name(m_node);
}

void RunProgramNode::instance_name(char *buffer) const
{
    QString shown = m_settings.shell ? m_settings.program : QFileInfo(m_settings.program).fileName();
    if (shown.isEmpty()) {
        qstrncpy(buffer, corv_plugin_tr(g_system_plugin, "Run.Type"), CORV_TEXT_SIZE);
        return;
    }
    if (shown.size() > 60)
        shown = shown.left(59) + QChar(0x2026);
    corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(g_system_plugin, "Run.Name.%1"),
                                shown.toUtf8().constData()),
                    buffer);
}

void RunProgramNode::pass_on(corv_event *event)
{
    corv_event_post(m_out, event);
}

void RunProgramNode::on_event(corv_event *event)
{
    m_done.clear();
    if (static_cast<int>(m_running.size()) < m_settings.limit) {
        start(event);
        return;
    }
    if (!m_settings.queue) {
        corv_plugin_log(g_system_plugin, CORV_LOG_DEBUG,
                        "Run Program: as many programs as allowed are running; event dropped");
        corv_event_destroy(event);
        return;
    }
    if (m_queue.size() >= kQueueLimit) {
        if (!m_warned_queue)
            corv_plugin_log(g_system_plugin, CORV_LOG_WARNING,
                            "Run Program: 1000 events wait for a program slot; dropping more");
        m_warned_queue = true;
        corv_event_destroy(event);
        return;
    }
    m_queue.push_back(event);
}

void RunProgramNode::start(corv_event *event)
{
    auto owned = std::make_unique<Run>();
    Run &run = *owned;
    run.event = event;
    run.wait = m_settings.wait;
    run.timeout = m_settings.timeout;

    QStringList arguments;
    for (const QString &line : lines_of(m_settings.arguments))
        arguments.append(expand(line, event));
    const QString program = expand(m_settings.program, event);
    if (m_settings.shell) {
        set_shell_command(run.process, program, arguments);
    } else {
        run.process.setProgram(program);
        run.process.setArguments(arguments);
    }
    const QString folder = expand(m_settings.folder, event);
    if (!folder.isEmpty())
        run.process.setWorkingDirectory(folder);
    const QStringList additions = lines_of(m_settings.environment);
    if (!additions.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const QString &line : additions) {
            const qsizetype equals = line.indexOf(QLatin1Char('='));
            if (equals > 0)
                environment.insert(line.left(equals).trimmed(), expand(line.mid(equals + 1), event));
        }
        run.process.setProcessEnvironment(environment);
    }
    run.process.setInputChannelMode(QProcess::ManagedInputChannel);
    run.tree.prepare(run.process);

    QObject::connect(&run.process, &QProcess::started, [this, &run] {
        run.tree.adopt(run.process);
        run.process.closeWriteChannel();
        if (!run.wait) {
            pass_on(run.event);
        }
    });
    QObject::connect(&run.process, &QProcess::readyReadStandardOutput,
                     [this, &run] { output(run, false); });
    QObject::connect(&run.process, &QProcess::readyReadStandardError,
                     [this, &run] { output(run, true); });
    QObject::connect(&run.process, &QProcess::errorOccurred, [this, &run](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart)
            complete(run, run.process.errorString());
    });
    QObject::connect(&run.process, &QProcess::finished,
                     [this, &run](int, QProcess::ExitStatus status) {
                         QString error;
                         if (run.timed_out)
                             error = QStringLiteral("timed out after %1 s").arg(run.timeout);
                         else if (status == QProcess::CrashExit)
                             error = run.process.errorString();
                         complete(run, error);
                     });
    if (run.timeout > 0) {
        run.timer.setSingleShot(true);
        run.timer.setInterval(static_cast<int>(std::min(run.timeout * 1000.0, 2.0e9)));
        QObject::connect(&run.timer, &QTimer::timeout, [&run] {
            run.timed_out = true;
            run.tree.kill(run.process);
        });
        run.timer.start();
    }
    m_running.push_back(std::move(owned));
    run.process.start();
}

void RunProgramNode::output(Run &run, bool error_channel)
{
    if (!run.process.isOpen())
        return;
    QByteArray &kept = error_channel ? run.err : run.out;
    const QByteArray bytes =
        error_channel ? run.process.readAllStandardError() : run.process.readAllStandardOutput();
    const qsizetype room = kOutputCap - kept.size();
    if (bytes.size() > room)
        run.truncated = true;
    if (room > 0)
        kept.append(bytes.left(room));
}

void RunProgramNode::complete(Run &run, const QString &error)
{
    if (run.completed)
        return;
    run.completed = true;
    run.timer.stop();
    output(run, false);
    output(run, true);
    if (!error.isEmpty() && run.process.error() == QProcess::FailedToStart)
        corv_plugin_log(g_system_plugin, CORV_LOG_WARNING,
                        QStringLiteral("Run Program: can't start \"%1\": %2")
                            .arg(run.process.program(), error)
                            .toUtf8()
                            .constData());
    if (run.wait || run.process.error() == QProcess::FailedToStart) {
        corv_event *event = run.event;
        if (run.process.error() != QProcess::FailedToStart) {
            corv_event_set(event, "exitcode",
                           run.process.exitStatus() == QProcess::NormalExit
                               ? QByteArray::number(run.process.exitCode()).constData()
                               : "");
            corv_event_set(event, "stdout", whole_characters(run.out, run.truncated).constData());
            corv_event_set(event, "stderr", whole_characters(run.err, run.truncated).constData());
            corv_event_set(event, "truncated", run.truncated ? "true" : "false");
        }
        if (!error.isEmpty())
            corv_event_set(event, "error", error.toUtf8().constData());
        pass_on(event);
    }

    // Out of the running set; freed on the next turn, outside its own signal.
    auto it = std::find_if(m_running.begin(), m_running.end(),
                           [&run](const auto &owned) { return owned.get() == &run; });
    if (it != m_running.end()) {
        m_done.push_back(std::move(*it));
        m_running.erase(it);
    }
    while (!m_queue.empty() && static_cast<int>(m_running.size()) < m_settings.limit) {
        corv_event *next = m_queue.front();
        m_queue.pop_front();
        start(next);
    }
}

} // namespace corv_system
