#include "desktop_nodes.h"

#include "notify.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGuiApplication>
#include <QThread>

#include <algorithm>
#include <cstdio>

extern corv_plugin *g_system_plugin;

namespace corv_system {

namespace {

// A translated text (corv_plugin_tr_arg) with its one argument.
QString tr_arg(corv_tr_builder *builder, const QString &argument)
{
    char *text = corv_tr_end(corv_tr_str(builder, argument.toUtf8().constData()));
    QString result = QString::fromUtf8(text);
    corv_string_destroy(text);
    return result;
}

void log_warning(const QString &line)
{
    corv_plugin_log(g_system_plugin, CORV_LOG_WARNING, line.toUtf8().constData());
}

// A long template's result shortened for a name or a message.
QString shortened(const QString &text, qsizetype at = 60)
{
    return text.size() > at ? text.left(at - 1) + QChar(0x2026) : text;
}

QClipboard *clipboard()
{
    return have_desktop() ? QGuiApplication::clipboard() : nullptr;
}

} // namespace

QString expand(const QString &text, corv_event *event)
{
    char *result = corv_expression(text.toUtf8().constData(), event);
    QString value = QString::fromUtf8(result);
    corv_string_destroy(result);
    return value;
}

bool have_desktop()
{
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        return false;
    const QString platform = QGuiApplication::platformName();
    return platform != QLatin1String("offscreen") && platform != QLatin1String("minimal");
}

void on_gui_thread(std::function<void()> fn)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app || QThread::currentThread() == app->thread())
        fn();
    else
        QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}

OpenTarget open_target(const QString &text)
{
    OpenTarget target;
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        target.problem = "Open.Empty";
        return target;
    }
    // A scheme has two letters at least: "C:\..." is a path.
    static const QRegularExpression scheme(QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]+):"));
    const QRegularExpressionMatch match = scheme.match(trimmed);
    if (!match.hasMatch()) {
        target.url = QUrl::fromLocalFile(QFileInfo(trimmed).absoluteFilePath());
        return target;
    }
    const QString name = match.captured(1).toLower();
    if (name != QLatin1String("http") && name != QLatin1String("https") && name != QLatin1String("file") &&
        name != QLatin1String("mailto")) {
        target.problem = "Open.Refused.%1";
        return target;
    }
    target.url = QUrl(trimmed);
    // QUrl reads "https:///x" as the host "x": a web address names its host.
    static const QRegularExpression host(QStringLiteral("^[A-Za-z]+://[^/?#\\s]"));
    const bool web = name.startsWith(QLatin1String("http"));
    if (!target.url.isValid() || (web && (target.url.host().isEmpty() || !host.match(trimmed).hasMatch())) ||
        (name == QLatin1String("mailto") && target.url.path().isEmpty()))
        target.problem = "Open.Invalid.%1";
    return target;
}

// --- What they share ---------------------------------------------------------

DesktopNode::DesktopNode(corv_node *node) : m_node(node), m_out(corv_node_parent_sink(node)) {}

void DesktopNode::on_event(corv_event *event)
{
    corv_event_post(m_out, event);
    corv_event_destroy(event);
}

void DesktopNode::instance_name(char *buffer) const
{
    qstrncpy(buffer, corv_plugin_tr(g_system_plugin, m_type_key), CORV_TEXT_SIZE);
}

uint32_t DesktopNode::decoration() const
{
    return CORV_DECORATION_PASSES_THROUGH | CORV_DECORATION_TAKES_EVENTS;
}

QString DesktopNode::stored(corv_store *store, const char *key, const char *fallback)
{
    return QString::fromUtf8(corv_store_has_string(store, key) ? corv_store_get_string(store, key) : fallback);
}

void DesktopNode::show_problem(const QString &text, const QString &log_line, bool log_again)
{
    if (!log_line.isEmpty() && (log_again || text != m_problem))
        log_warning(log_line);
    if (text == m_problem)
        return;
    m_problem = text;
    corv_node_invalidate_properties(m_node);
}

void DesktopNode::clear_problem()
{
    if (m_problem.isEmpty())
        return;
    m_problem.clear();
    corv_node_invalidate_properties(m_node);
}

void DesktopNode::build_problem(cui_generate_context *context) const
{
    if (!m_problem.isEmpty())
        cui_label(context, "", m_problem.toUtf8().constData());
}

void DesktopNode::no_clipboard()
{
    static bool logged = false;
    show_problem(QString::fromUtf8(corv_plugin_tr(g_system_plugin, "Clipboard.None")),
                 logged ? QString() : QStringLiteral("There is no clipboard without a window system; "
                                                      "the clipboard nodes do nothing"));
    logged = true;
}

// --- Open --------------------------------------------------------------------

OpenNode::OpenNode(corv_node *node) : DesktopNode(node)
{
    m_type_key = "Open.Type";
}

void OpenNode::load(corv_store *store)
{
    m_target = stored(store, "!target", "");
}

void OpenNode::build(cui_generate_context *context)
{
    const QString before = m_target;
    m_target = QString::fromUtf8(cui_text(context, "!target", corv_plugin_tr(g_system_plugin, "Open.TargetField"), ""));
    cui_label(context, "", corv_plugin_tr(g_system_plugin, "Open.Help"));
    build_problem(context);
    if (before != m_target)
        corv_node_invalidate_name(m_node);
}

void OpenNode::instance_name(char *buffer) const
{
    if (m_target.isEmpty())
        return DesktopNode::instance_name(buffer);
    corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(g_system_plugin, "Open.Name.%1"),
                                shortened(m_target).toUtf8().constData()),
                    buffer);
}

uint32_t OpenNode::decoration() const
{
    return CORV_DECORATION_TAKES_EVENTS | CORV_DECORATION_PASSES_LATER;
}

void OpenNode::on_event(corv_event *event)
{
    const QString text = expand(m_target, event);
    const OpenTarget target = open_target(text);
    const QString shown = shortened(text.trimmed(), 200);
    QString problem;
    QString line;
    if (target.problem) {
        problem = tr_arg(corv_plugin_tr_arg(g_system_plugin, target.problem), shown);
        line = qstrcmp(target.problem, "Open.Empty") == 0
                   ? QStringLiteral("Open: nothing to open (the template gave no text)")
               : qstrcmp(target.problem, "Open.Refused.%1") == 0
                   ? QStringLiteral("Open: refused \"%1\": only http, https, file and mailto addresses "
                                    "and paths are opened")
                         .arg(shown)
                   : QStringLiteral("Open: \"%1\" is not a valid address").arg(shown);
    } else if (!have_desktop()) {
        problem = tr_arg(corv_plugin_tr_arg(g_system_plugin, "Open.NoDesktop.%1"), shown);
        line = QStringLiteral("Open: no desktop to open \"%1\" with").arg(shown);
    } else if (!QDesktopServices::openUrl(target.url)) {
        problem = tr_arg(corv_plugin_tr_arg(g_system_plugin, "Open.Failed.%1"), shown);
        line = QStringLiteral("Open: the desktop could not open \"%1\"").arg(shown);
    }
    if (problem.isEmpty()) {
        clear_problem();
    } else {
        show_problem(problem, line, true);
        corv_event_set(event, "error", line.toUtf8().constData());
    }
    DesktopNode::on_event(event);
}

// --- Set Clipboard -----------------------------------------------------------

SetClipboardNode::SetClipboardNode(corv_node *node) : DesktopNode(node)
{
    m_type_key = "SetClipboard.Type";
}

void SetClipboardNode::load(corv_store *store)
{
    m_text = stored(store, "!text", "{text}");
}

void SetClipboardNode::build(cui_generate_context *context)
{
    m_text = QString::fromUtf8(cui_text_area(context, "!text", corv_plugin_tr(g_system_plugin, "SetClipboard.TextField"), "{text}"));
    cui_label(context, "", corv_plugin_tr(g_system_plugin, "SetClipboard.Help"));
    if (!have_desktop())
        no_clipboard();
    build_problem(context);
}

void SetClipboardNode::on_event(corv_event *event)
{
    // A template that comes out empty (an event without its key) leaves what
    // the user copied; only an empty template empties the clipboard.
    const QString text = expand(m_text, event);
    QClipboard *board = clipboard();
    if (!board)
        no_clipboard();
    else if (!text.isEmpty() || m_text.isEmpty())
        board->setText(text);
    DesktopNode::on_event(event);
}

// --- On Clipboard Changed ----------------------------------------------------

OnClipboardNode::OnClipboardNode(corv_node *node) : DesktopNode(node), m_children(corv_node_child_sink(node))
{
    m_type_key = "OnClipboard.Type";
    m_debounce.setSingleShot(true);
    QObject::connect(&m_debounce, &QTimer::timeout, &m_context, [this] { settled(); });
}

uint32_t OnClipboardNode::decoration() const
{
    return CORV_DECORATION_PASSES_THROUGH | CORV_DECORATION_RUNS_CHILDREN | CORV_DECORATION_PASSES_RETURNED;
}

void OnClipboardNode::load(corv_store *store)
{
    m_debounce.setInterval(
        corv_store_has_int(store, "!debounce") ? std::clamp(corv_store_get_int(store, "!debounce"), 0, 60000) : 100);
    set_filter(stored(store, "!filter", ""));
}

void OnClipboardNode::set_filter(const QString &filter)
{
    if (filter == m_filter_text && m_filter_read)
        return;
    m_filter_read = true;
    m_filter_text = filter;
    m_filter.setPattern(m_filter_text);
    m_filter_error.clear();
    if (!m_filter.isValid()) {
        m_filter_error = QStringLiteral("%1 at %2").arg(m_filter.errorString()).arg(m_filter.patternErrorOffset());
        log_warning(QStringLiteral("On Clipboard Changed: the filter \"%1\" is not a regular expression "
                                   "(%2); nothing passes")
                        .arg(shortened(m_filter_text, 200), m_filter_error));
    }
}

void OnClipboardNode::build(cui_generate_context *context)
{
    m_debounce.setInterval(
        cui_int(context, "!debounce", corv_plugin_tr(g_system_plugin, "OnClipboard.DebounceField"), 100, 0, 60000));
    const QString filter = QString::fromUtf8(cui_text(context, "!filter", corv_plugin_tr(g_system_plugin, "OnClipboard.FilterField"), ""));
    cui_label(context, "", corv_plugin_tr(g_system_plugin, "OnClipboard.Help"));
    if (!m_listening) {
        if (QClipboard *board = clipboard()) {
            QObject::connect(board, &QClipboard::dataChanged, &m_context, [this] { changed(); });
            m_listening = true;
        }
    }
    set_filter(filter);
    if (!m_filter_error.isEmpty())
        show_problem(tr_arg(corv_plugin_tr_arg(g_system_plugin, "OnClipboard.BadFilter.%1"), m_filter_error), QString());
    else if (!m_listening)
        no_clipboard();
    else
        clear_problem();
    build_problem(context);
}

void OnClipboardNode::changed()
{
    m_debounce.start();
}

void OnClipboardNode::settled()
{
    QClipboard *board = clipboard();
    if (!board || !m_filter.isValid())
        return;
    const QString text = board->text();
    if (text.isEmpty() || text == m_last)
        return;
    m_last = text;
    if (!m_filter_text.isEmpty() && !m_filter.match(text).hasMatch())
        return;
    corv_event *event = corv_event_create();
    corv_event_set(event, "text", text.toUtf8().constData());
    corv_event_post(m_children, event);
    corv_event_destroy(event);
}

// --- Show Notification -------------------------------------------------------

NotifyNode::NotifyNode(corv_node *node) : DesktopNode(node)
{
    m_type_key = "Notify.Type";
}

void NotifyNode::load(corv_store *store)
{
    m_title = stored(store, "!title", "Corvane");
    m_text = stored(store, "!text", "{text}");
}

void NotifyNode::build(cui_generate_context *context)
{
    m_title = QString::fromUtf8(cui_text(context, "!title", corv_plugin_tr(g_system_plugin, "Notify.TitleField"), "Corvane"));
    m_text = QString::fromUtf8(cui_text_area(context, "!text", corv_plugin_tr(g_system_plugin, "Notify.TextField"), "{text}"));
    cui_label(context, "", corv_plugin_tr(g_system_plugin, "Notify.Help"));
    build_problem(context);
}

void NotifyNode::on_event(corv_event *event)
{
    const QString title = expand(m_title, event);
    const QString text = expand(m_text, event);
    if (!qobject_cast<QGuiApplication *>(QCoreApplication::instance())) {
        // Headless: whoever reads the output sees it too.
        std::printf("notification: %s: %s\n", title.toUtf8().constData(), text.toUtf8().constData());
        std::fflush(stdout);
    }
    notify(title, text, &m_context, [this](const QString &error) {
        if (error.isEmpty())
            clear_problem();
        else
            show_problem(tr_arg(corv_plugin_tr_arg(g_system_plugin, "Notify.Failed.%1"), error),
                         QStringLiteral("Show Notification: not shown: %1").arg(error));
    });
    DesktopNode::on_event(event);
}

} // namespace corv_system
