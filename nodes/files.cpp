#include "nodes/files.h"

#include "nodes/builtin_nodes.h"
#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QObject>

#include <atomic>
#include <cstdio>
#include <memory>
#include <utility>

namespace corv::nodes {

namespace {

std::atomic<bool> g_display_echo{false};

QString path_of(const QByteArray &path)
{
    return QString::fromUtf8(path);
}

QByteArray file_name_of(const QByteArray &path)
{
    return QFileInfo(path_of(path)).fileName().toUtf8();
}

// The whole content of a file, or nothing when it cannot be opened.
bool read_file(const QByteArray &path, QByteArray &content)
{
    if (path.isEmpty())
        return false;
    QFile file(path_of(path));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    content = file.readAll();
    return true;
}

// --- On file changed ----------------------------------------------------------
// Starts an event whenever the watched file changes. Editors that save by
// writing a new file and renaming it over the old one make the watcher drop
// the path (it reports a removal); so does deleting and writing anew. The
// node then watches the file's folder until the path exists again, takes the
// file back into its watch and reports the change.

struct OnFileChanged : NodeState {
    using NodeState::NodeState;

    // Watches `path` from now on (empty: nothing).
    void watch(const QByteArray &new_path)
    {
        if (watcher) {
            const QStringList files = watcher->files();
            const QStringList folders = watcher->directories();
            if (!files.isEmpty())
                watcher->removePaths(files);
            if (!folders.isEmpty())
                watcher->removePaths(folders);
        }
        path = new_path;
        if (!path.isEmpty())
            arm();
    }

    // Takes the file into the watch, or its folder while the file is missing.
    // True when the file itself is watched.
    bool arm()
    {
        if (!watcher) {
            watcher = std::make_unique<QFileSystemWatcher>();
            QObject::connect(watcher.get(), &QFileSystemWatcher::fileChanged, watcher.get(),
                             [this](const QString &) { file_changed(); });
            QObject::connect(watcher.get(), &QFileSystemWatcher::directoryChanged, watcher.get(),
                             [this](const QString &) { folder_changed(); });
        }
        const QString file = path_of(path);
        if (watcher->files().contains(file))
            return true;
        const QFileInfo info(file);
        if (info.exists() && watcher->addPath(file)) {
            if (!watcher->directories().isEmpty())
                watcher->removePaths(watcher->directories());
            return true;
        }
        const QString folder = info.absolutePath();
        if (!watcher->directories().contains(folder) && QFileInfo(folder).isDir())
            watcher->addPath(folder);
        return false;
    }

    void file_changed()
    {
        arm(); // a replaced file was dropped from the watch
        fire();
    }

    void folder_changed()
    {
        if (QFileInfo::exists(path_of(path)) && arm())
            fire();
    }

    void fire()
    {
        corv_event *event = corv_event_create();
        corv_event_set(event, "file", path.constData());
        QByteArray content;
        if (reading && read_file(path, content))
            corv_event_set(event, key.constData(), content.constData());
        post_to_children(node, event);
    }

    QByteArray path; // null until first set
    std::unique_ptr<QFileSystemWatcher> watcher;
    bool reading = true;
    QByteArray key;
};

void on_file_changed_name(void *data, char *buffer)
{
    const OnFileChanged *changed = state_of<OnFileChanged>(data);
    const QByteArray file = file_name_of(changed->path);
    // No file yet: the type's name, not a sentence with a gap.
    if (file.isEmpty())
        write_name(buffer, corv_plugin_tr(plugin(), "OnFileChangedNode.Name"));
    else if (changed->reading)
        corv_tr_end_str(
            corv_tr_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "OnFileChangedNode.Name.%1.%2"),
                                    file.constData()),
                        changed->key.constData()),
            buffer);
    else
        corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "OnFileChangedNode.Name.%1"),
                                    file.constData()),
                        buffer);
}

void on_file_changed_build(void *data, cui_generate_context *context)
{
    OnFileChanged *changed = state_of<OnFileChanged>(data);
    const QByteArray path = owned(
        cui_open_file(context, "!path", corv_plugin_tr(plugin(), "OnFileChangedNode.PathField"),
                      corv_plugin_tr(plugin(), "OnFileChangedNode.Filter"), ""));
    if (path != changed->path) // a null path equals an empty one
        changed->watch(path);
    // "read" and "key" without "!" live under the type's prefix, as saved
    // projects have them.
    changed->reading = cui_checkbox(context, "read",
                                    corv_plugin_tr(plugin(), "OnFileChangedNode.ReadField"), true);
    if (changed->reading)
        changed->key =
            owned(cui_text(context, "key", corv_plugin_tr(plugin(), "OnFileChangedNode.KeyField"),
                           corv_plugin_tr(plugin(), "OnFileChangedNode.DefaultKey")));
    else
        changed->key.clear();
    corv_node_invalidate_name(changed->node);
}

// --- Read text file -------------------------------------------------------------

struct ReadText : NodeState {
    using NodeState::NodeState;
    QByteArray path;
    QByteArray key;
};

void read_text_name(void *data, char *buffer)
{
    const ReadText *read = state_of<ReadText>(data);
    if (read->path.isEmpty())
        return write_name(buffer, corv_plugin_tr(plugin(), "ReadTextFileNode.Name"));
    corv_tr_end_str(
        corv_tr_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "ReadTextFileNode.Name.%1.%2"),
                                file_name_of(read->path).constData()),
                    read->key.constData()),
        buffer);
}

void read_text_build(void *data, cui_generate_context *context)
{
    ReadText *read = state_of<ReadText>(data);
    read->path = owned(cui_open_file(context, "!path",
                                     corv_plugin_tr(plugin(), "ReadTextFileNode.PathField"),
                                     corv_plugin_tr(plugin(), "ReadTextFileNode.Filter"), ""));
    read->key =
        owned(cui_text(context, "!key", corv_plugin_tr(plugin(), "ReadTextFileNode.KeyField"),
                       corv_plugin_tr(plugin(), "ReadTextFileNode.DefaultKey")));
    corv_node_invalidate_name(read->node);
}

void read_text_on_event(void *data, corv_event *event)
{
    const ReadText *read = state_of<ReadText>(data);
    QByteArray content;
    if (read_file(read->path, content))
        corv_event_set(event, read->key.constData(), content.constData());
    post_to_parent(read->node, event);
}

// --- Write text file ------------------------------------------------------------

struct WriteText : NodeState {
    using NodeState::NodeState;
    QByteArray path;
    QByteArray value; // the template; empty writes nothing
};

void write_text_name(void *data, char *buffer)
{
    const QByteArray &path = state_of<WriteText>(data)->path;
    if (path.isEmpty())
        return write_name(buffer, corv_plugin_tr(plugin(), "WriteTextFileNode.Name"));
    corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "WriteTextFileNode.Name.%1"),
                                file_name_of(path).constData()),
                    buffer);
}

void write_text_build(void *data, cui_generate_context *context)
{
    WriteText *write = state_of<WriteText>(data);
    write->path = owned(cui_save_file(context, "!path",
                                      corv_plugin_tr(plugin(), "WriteTextFileNode.PathField"),
                                      corv_plugin_tr(plugin(), "WriteTextFileNode.Filter"), ""));
    write->value = owned(cui_text_area(context, "!value", "",
                                       corv_plugin_tr(plugin(), "WriteTextFileNode.DefaultValue")));
    corv_node_invalidate_name(write->node);
}

void write_text_on_event(void *data, corv_event *event)
{
    const WriteText *write = state_of<WriteText>(data);
    if (!write->path.isEmpty()) {
        QFile file(path_of(write->path));
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text) &&
            !write->value.isEmpty()) {
            char *text = corv_expression(write->value.constData(), event);
            file.write(text);
            corv_string_destroy(text);
        }
    }
    post_to_parent(write->node, event);
}

// --- Display --------------------------------------------------------------------
// Shows the last event's keys and values in its panel, one "key: value" line
// each (cut at 255 bytes), in the order the keys were first set.

struct Display : NodeState {
    using NodeState::NodeState;
    ~Display() { corv_event_destroy(shown); }
    corv_event *shown = nullptr;
};

// The line of one key as the panel shows it.
void display_line(corv_event *event, const char *key, char *line)
{
    const char *value = corv_event_get(event, key);
    write_name(line, QByteArray(key) + ": " + (value ? value : ""));
}

void display_name(void *, char *buffer)
{
    write_name(buffer, corv_plugin_tr(plugin(), "DisplayNode.Name"));
}

void display_build(void *data, cui_generate_context *context)
{
    Display *display = state_of<Display>(data);
    if (!display->shown)
        return;
    if (cui_button(context, "", corv_plugin_tr(plugin(), "DisplayNode.Clear"))) {
        corv_event_destroy(std::exchange(display->shown, nullptr));
        corv_node_invalidate_properties(display->node);
        return;
    }
    char line[CORV_TEXT_SIZE];
    const std::uint64_t count = corv_event_count(display->shown);
    for (std::uint64_t i = 0; i < count; ++i) {
        display_line(display->shown, corv_event_get_key(display->shown, i), line);
        cui_label(context, "", line);
    }
}

void display_on_event(void *data, corv_event *event)
{
    Display *display = state_of<Display>(data);
    corv_event_post(corv_node_parent_sink(display->node), event);
    if (g_display_echo.load(std::memory_order_relaxed)) {
        char line[CORV_TEXT_SIZE];
        const std::uint64_t count = corv_event_count(event);
        for (std::uint64_t i = 0; i < count; ++i) {
            display_line(event, corv_event_get_key(event, i), line);
            std::printf("%s\n", line);
        }
        std::fflush(stdout);
    }
    corv_event_destroy(std::exchange(display->shown, event));
    corv_node_invalidate_properties(display->node);
}

} // namespace

void set_display_echo(bool on)
{
    g_display_echo.store(on, std::memory_order_relaxed);
}

bool display_echo()
{
    return g_display_echo.load(std::memory_order_relaxed);
}

const corv_node_type on_file_changed_node = {nullptr,
                                             nullptr,
                                             nullptr,
                                             nullptr,
                                             create_state<OnFileChanged>,
                                             destroy_state<OnFileChanged>,
                                             on_file_changed_name,
                                             nullptr,
                                             on_file_changed_build,
                                             pass_on,
                                             pass_on,
                                             nullptr,
                                             nullptr};

const corv_node_type read_text_node = {nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       create_state<ReadText>,
                                       destroy_state<ReadText>,
                                       read_text_name,
                                       nullptr,
                                       read_text_build,
                                       read_text_on_event,
                                       pass_on,
                                       nullptr,
                                       nullptr};

const corv_node_type write_text_node = {nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        create_state<WriteText>,
                                        destroy_state<WriteText>,
                                        write_text_name,
                                        nullptr,
                                        write_text_build,
                                        write_text_on_event,
                                        pass_on,
                                        nullptr,
                                        nullptr};

const corv_node_type display_node = {nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     create_state<Display>,
                                     destroy_state<Display>,
                                     display_name,
                                     nullptr,
                                     display_build,
                                     display_on_event,
                                     pass_on,
                                     nullptr,
                                     nullptr};

} // namespace corv::nodes
