// Active Window ("!pattern", a regular expression): runs its children with
// the events that arrive while the active window's title, program (the
// executable's path) or class matches the expression, case-insensitively,
// and adds the keys "window" (its title) and "program" to them; the others
// go no further in the rack. The window is looked up when the event
// arrives. After an on-hotkey node it makes a hotkey for one application.
// Where the desktop's windows cannot be seen (no display) it says so once
// and passes nothing; an invalid expression is reported once per edit and
// passes nothing.

#include "input/active_window.h"
#include "input/platform.h"
#include "nodes/hotkeys.h"
#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QRegularExpression>
#include <QString>

#include <memory>

namespace corv::nodes {

namespace {

// One lookup for every node, on the main thread; opened at the first event.
input::WindowLookup *window_lookup()
{
    static bool tried = false;
    static std::unique_ptr<input::WindowLookup> lookup;
    if (!tried) {
        tried = true;
        input::WindowLookupOpening opening = input::open_window_lookup();
        lookup = std::move(opening.lookup);
        if (!lookup)
            qCWarning(input::lc_input, "Active Window nodes cannot see the desktop's windows: %s; they pass nothing",
                      opening.problem.c_str());
    }
    return lookup.get();
}

struct ActiveWindowFilter : NodeState {
    using NodeState::NodeState;
    QByteArray text;
    QRegularExpression pattern;
};

void active_window_name(void *data, char *buffer)
{
    const QByteArray &text = state_of<ActiveWindowFilter>(data)->text;
    if (text.isEmpty())
        write_name(buffer, corv_plugin_tr(plugin(), "ActiveWindowNode.Name"));
    else
        corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "ActiveWindowNode.Name.%1"), text.constData()),
                        buffer);
}

void active_window_build(void *data, cui_generate_context *context)
{
    ActiveWindowFilter *node = state_of<ActiveWindowFilter>(data);
    if (!take_text(node->text,
                   cui_text(context, "!pattern", corv_plugin_tr(plugin(), "ActiveWindowNode.Pattern"), "")))
        return;
    node->pattern = QRegularExpression(QString::fromUtf8(node->text), QRegularExpression::CaseInsensitiveOption);
    if (!node->pattern.isValid())
        qCWarning(input::lc_input, "Active Window: invalid regular expression \"%s\": %s", node->text.constData(),
                  qUtf8Printable(node->pattern.errorString()));
    corv_node_invalidate_name(node->node);
}

void active_window_on_event(void *data, corv_event *event)
{
    const ActiveWindowFilter *node = state_of<ActiveWindowFilter>(data);
    input::WindowLookup *lookup = node->pattern.isValid() ? window_lookup() : nullptr;
    const std::optional<input::ActiveWindow> window = lookup ? lookup->active() : std::nullopt;
    const auto matches = [&](const std::string &text) {
        return node->pattern.match(QString::fromStdString(text)).hasMatch();
    };
    if (!window || !(matches(window->title) || matches(window->program) || matches(window->kind))) {
        corv_event_destroy(event);
        return;
    }
    corv_event_set(event, "window", window->title.c_str());
    corv_event_set(event, "program", window->program.empty() ? window->kind.c_str() : window->program.c_str());
    post_to_children(node->node, event);
}

} // namespace

const corv_node_type active_window_node = {nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           create_state<ActiveWindowFilter>,
                                           destroy_state<ActiveWindowFilter>,
                                           active_window_name,
                                           nullptr,
                                           active_window_build,
                                           active_window_on_event,
                                           pass_on,
                                           nullptr,
                                           nullptr};

} // namespace corv::nodes
