#include "nodes/flow.h"

#include "nodes/mailbox.h"
#include "nodes/node_support.h"

#include <QTimer>

#include <memory>

namespace corv::nodes {

namespace {

// --- Fork -------------------------------------------------------------------
// Runs its children and the rest of its parent's sequence side by side.

struct Fork : NodeState {
    using NodeState::NodeState;
    QByteArray name;
};

void fork_name(void *data, char *buffer)
{
    write_name(buffer, state_of<Fork>(data)->name);
}

void fork_build(void *data, cui_generate_context *context)
{
    Fork *fork = state_of<Fork>(data);
    // "name" without "!" is deliberate: saved projects store it under the
    // type's prefix.
    const char *name = cui_text(context, "name", corv_plugin_tr(plugin(), "ForkNode.NameField"),
                                corv_plugin_tr(plugin(), "ForkNode.DefaultName"));
    if (take_text(fork->name, name))
        corv_node_invalidate_name(fork->node);
}

void fork_on_event(void *data, corv_event *event)
{
    corv_node *node = node_of(data);
    corv_event_post(corv_node_child_sink(node), event);
    post_to_parent(node, event);
}

// --- Forward ----------------------------------------------------------------
// Starts each event again at the top of another rack, and passes it on.

struct Forward : NodeState {
    using NodeState::NodeState;
    corv_rack *rack = nullptr;
};

void forward_name(void *data, char *buffer)
{
    const Forward *forward = state_of<Forward>(data);
    write_name(buffer, forward->rack ? corv_rack_name(forward->rack)
                                     : corv_plugin_tr(plugin(), "ForwardNode.Name.None"));
}

void forward_build(void *data, cui_generate_context *context)
{
    Forward *forward = state_of<Forward>(data);
    forward->rack = cui_select_rack(context, "!rack", corv_plugin_tr(plugin(), "ForwardNode.Rack"));
    // A rename or removal of the chosen rack rebuilds too, so the name and
    // the handle follow it.
    cui_set_invalidate_mode(context, CUI_TRIGGERS_DEFAULT | CUI_TRIGGER_SELECTED_RACK);
    corv_node_invalidate_name(forward->node);
}

void forward_on_event(void *data, corv_event *event)
{
    const Forward *forward = state_of<Forward>(data);
    if (forward->rack)
        corv_event_post(corv_rack_sink(forward->rack), event);
    post_to_parent(forward->node, event);
}

// --- Loop -------------------------------------------------------------------
// Runs its children again with every event they hand back (at most once per
// turn of the event loop), handing each round on as well, until the user
// stops the next round.

struct Loop : NodeState {
    explicit Loop(corv_node *node) : NodeState(node)
    {
        latch.setSingleShot(true);
        latch.setInterval(0);
    }
    QTimer latch; // running: an event already went round in this turn
    bool stop_next = false;
};

void loop_name(void *data, char *buffer)
{
    write_name(buffer, state_of<Loop>(data)->stop_next
                           ? corv_plugin_tr(plugin(), "LoopNode.Name.NextStopped")
                           : corv_plugin_tr(plugin(), "LoopNode.Name"));
}

void set_stop_next(Loop *loop, bool stop_next)
{
    loop->stop_next = stop_next;
    corv_node_invalidate_name(loop->node);
    corv_node_invalidate_properties(loop->node);
}

void loop_build(void *data, cui_generate_context *context)
{
    Loop *loop = state_of<Loop>(data);
    if (loop->stop_next) {
        cui_label(context, "", corv_plugin_tr(plugin(), "LoopNode.NextStopped"));
        if (cui_button(context, "", corv_plugin_tr(plugin(), "LoopNode.AllowNext")))
            set_stop_next(loop, false);
    } else if (cui_button(context, "", corv_plugin_tr(plugin(), "LoopNode.StopNext"))) {
        set_stop_next(loop, true);
    }
}

void loop_on_event(void *data, corv_event *event)
{
    post_to_children(node_of(data), event);
}

void loop_on_children_returned(void *data, corv_event *event)
{
    Loop *loop = state_of<Loop>(data);
    if (loop->stop_next) {
        set_stop_next(loop, false);
    } else if (!loop->latch.isActive()) {
        loop->latch.start();
        corv_event_post(corv_node_child_sink(loop->node), event);
    }
    post_to_parent(loop->node, event);
}

// --- Stop -------------------------------------------------------------------

void stop_name(void *, char *buffer)
{
    write_name(buffer, corv_plugin_tr(plugin(), "StopNode.Name"));
}

// --- Send and receive -------------------------------------------------------

struct Send : NodeState {
    using NodeState::NodeState;
    QByteArray mailbox;
};

void send_name(void *data, char *buffer)
{
    const QByteArray &mailbox = state_of<Send>(data)->mailbox;
    if (mailbox.isEmpty())
        write_name(buffer, corv_plugin_tr(plugin(), "SendNode.Name"));
    else
        corv_tr_end_str(
            corv_tr_str(corv_plugin_tr_arg(plugin(), "SendNode.Name.%1"), mailbox.constData()),
            buffer);
}

void send_build(void *data, cui_generate_context *context)
{
    Send *send = state_of<Send>(data);
    if (take_text(send->mailbox,
                  cui_text(context, "!mailbox", corv_plugin_tr(plugin(), "SendNode.Mailbox"), "")))
        corv_node_invalidate_name(send->node);
}

void send_on_event(void *data, corv_event *event)
{
    const Send *send = state_of<Send>(data);
    corv_event *copy = corv_event_clone(event);
    MailboxRegistry::instance().deliver(send->mailbox, copy);
    corv_event_destroy(copy);
    post_to_parent(send->node, event);
}

struct Receive : NodeState {
    using NodeState::NodeState;
    MailboxRegistry::Subscription subscription;
};

void receive_deliver(void *subscriber, corv_event *event)
{
    corv_event_post(corv_node_child_sink(static_cast<Receive *>(subscriber)->node), event);
}

void receive_destroy(void *data)
{
    Receive *receive = state_of<Receive>(data);
    MailboxRegistry::instance().unsubscribe(receive->subscription);
    delete receive;
}

void receive_name(void *data, char *buffer)
{
    const QByteArray &mailbox = state_of<Receive>(data)->subscription.name;
    if (mailbox.isEmpty())
        write_name(buffer, corv_plugin_tr(plugin(), "ReceiveNode.Name"));
    else
        corv_tr_end_str(
            corv_tr_str(corv_plugin_tr_arg(plugin(), "ReceiveNode.Name.%1"), mailbox.constData()),
            buffer);
}

void receive_build(void *data, cui_generate_context *context)
{
    Receive *receive = state_of<Receive>(data);
    const QByteArray mailbox =
        owned(cui_text(context, "!mailbox", corv_plugin_tr(plugin(), "ReceiveNode.Mailbox"), ""));
    if (receive->subscription.subscribed() && mailbox == receive->subscription.name)
        return;
    MailboxRegistry::instance().subscribe(receive->subscription, mailbox, receive, receive_deliver);
    corv_node_invalidate_name(receive->node);
}

// --- On-custom --------------------------------------------------------------
// A source fired from its panel with a hand-written event.

struct OnCustom : NodeState {
    using NodeState::NodeState;
    QByteArray name;
};

void on_custom_name(void *data, char *buffer)
{
    const QByteArray &name = state_of<OnCustom>(data)->name;
    if (name.isEmpty())
        write_name(buffer, "");
    else
        corv_tr_end_str(
            corv_tr_str(corv_plugin_tr_arg(plugin(), "OnCustomNode.Name.%1"), name.constData()),
            buffer);
}

void on_custom_build(void *data, cui_generate_context *context)
{
    OnCustom *custom = state_of<OnCustom>(data);
    if (take_text(custom->name,
                  cui_text(context, "!name", corv_plugin_tr(plugin(), "OnCustomNode.NameField"),
                           corv_plugin_tr(plugin(), "OnCustomNode.DefaultName"))))
        corv_node_invalidate_name(custom->node);
    const QByteArray scope = owned(cui_text_area(
        context, "!scope", "", corv_plugin_tr(plugin(), "OnCustomNode.DefaultScope")));
    if (cui_button(context, "", corv_plugin_tr(plugin(), "OnCustomNode.Trigger"))) {
        corv_event *event = corv_event_create();
        apply_scope(event, scope.constData());
        post_to_children(custom->node, event);
    }
}

bool is_blank(char c)
{
    return c == ' ';
}

} // namespace

void apply_scope(corv_event *event, const char *scope)
{
    if (!scope)
        return;
    const QByteArray text(scope);
    qsizetype start = 0;
    while (start <= text.size()) {
        qsizetype end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        qsizetype i = start;
        while (i < end && is_blank(text[i]))
            ++i;
        const qsizetype colon = text.indexOf(':', i);
        if (colon >= 0 && colon < end) {
            qsizetype key_end = colon;
            while (key_end > i && is_blank(text[key_end - 1]))
                --key_end;
            qsizetype value_start = colon + 1;
            while (value_start < end && is_blank(text[value_start]))
                ++value_start;
            qsizetype value_end = end;
            while (value_end > value_start && is_blank(text[value_end - 1]))
                --value_end;
            corv_event_set(event, text.sliced(i, key_end - i).constData(),
                           text.sliced(value_start, value_end - value_start).constData());
        }
        start = end + 1;
    }
}

const corv_node_type fork_node = {nullptr,
                                  nullptr,
                                  nullptr,
                                  nullptr,
                                  create_state<Fork>,
                                  destroy_state<Fork>,
                                  fork_name,
                                  nullptr,
                                  fork_build,
                                  fork_on_event,
                                  drop,
                                  nullptr,
                                  nullptr};

const corv_node_type forward_node = {nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     create_state<Forward>,
                                     destroy_state<Forward>,
                                     forward_name,
                                     nullptr,
                                     forward_build,
                                     forward_on_event,
                                     pass_on,
                                     nullptr,
                                     nullptr};

const corv_node_type loop_node = {
    nullptr,   nullptr, nullptr,    nullptr,       create_state<Loop>,        destroy_state<Loop>,
    loop_name, nullptr, loop_build, loop_on_event, loop_on_children_returned, nullptr,
    nullptr};

const corv_node_type stop_node = {nullptr,
                                  nullptr,
                                  nullptr,
                                  nullptr,
                                  create_state<NodeState>,
                                  destroy_state<NodeState>,
                                  stop_name,
                                  nullptr,
                                  nullptr,
                                  drop,
                                  drop,
                                  nullptr,
                                  nullptr};

const corv_node_type send_node = {nullptr,
                                  nullptr,
                                  nullptr,
                                  nullptr,
                                  create_state<Send>,
                                  destroy_state<Send>,
                                  send_name,
                                  nullptr,
                                  send_build,
                                  send_on_event,
                                  pass_on,
                                  nullptr,
                                  nullptr};

const corv_node_type receive_node = {
    nullptr,         nullptr,      nullptr, nullptr,       create_state<Receive>,
    receive_destroy, receive_name, nullptr, receive_build, pass_on,
    pass_on,         nullptr,      nullptr};

const corv_node_type on_custom_node = {nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       create_state<OnCustom>,
                                       destroy_state<OnCustom>,
                                       on_custom_name,
                                       nullptr,
                                       on_custom_build,
                                       pass_on,
                                       pass_on,
                                       nullptr,
                                       nullptr};

} // namespace corv::nodes
