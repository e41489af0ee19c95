// The hotkey nodes, over the input library's poller and injector.
//
// On-hotkey ("!hotkey"): registers its combination with the hotkey poller.
// When the combination becomes held (exactly: no extra modifier) it starts
// one event in its children with the keys "hotkey" (the hotkey text as
// stored) and "state" ("pressed"). Letting go starts nothing, so a press
// runs the children once however long it is held. The event is made on the
// poller thread and posted; the children run on the main thread. Presses
// that Corvane itself sends never fire it. Events from the parent and back
// from the children are passed on.
//
// Trigger-hotkey ("!hotkey", "!seconds" the hold time, 0.05 s unless set,
// "mode" the wait):
// each event from the parent queues one press of the combination on the key
// injector. Mode 0 passes the event on at once; mode 1 when the keys have
// gone down; mode 2 when they have been released. An empty hotkey, or text
// that names no known key, presses nothing and passes events on at once.
// A key that is already held when its job comes up is let go first so that
// the target sees a fresh press. The gap between jobs ("inputgapms")
// separates one job's release from the next job's press, not the press
// from the release; a hold longer than a second lets later presses run
// meanwhile. When the node goes away (removed, project closed) or every
// rack pauses, its queued presses are dropped, a running one is released at
// once, and the events still waiting for them are dropped. Disabling its
// rack only stops the routing: presses already queued go on.
//
// Key names: the hotkey field's text ("Ctrl+Alt+Meta+Shift+K"); Meta is
// the Win key (Super on X11); "Num+" marks keypad keys; function keys,
// arrows, navigation and media keys by their names; characters through the
// current keyboard layout.

#include "nodes/hotkeys.h"

#include "input/hotkey_poller.h"
#include "input/key_injector.h"
#include "input/platform.h"
#include "nodes/node_support.h"
#include "sdk/include/corvane/corvane_cui.h"

#include <QMutex>
#include <QMutexLocker>

#include <deque>
#include <optional>
#include <string_view>
#include <utility>

namespace corv::nodes {

namespace {

using input::Hotkey;
using input::HotkeyPoller;
using input::KeyInjector;

constexpr double kDefaultHoldSeconds = 0.05;

// The hotkey of a field's text; nothing (with one warning) for text that
// names no known key, and for empty text.
std::optional<Hotkey> read_hotkey(const QByteArray &text)
{
    if (text.isEmpty())
        return std::nullopt;
    std::optional<Hotkey> hotkey = input::hotkey_from_text(std::string_view(text.constData(), std::size_t(text.size())));
    if (!hotkey)
        qCWarning(input::lc_input, "Unknown key in hotkey \"%s\"", text.constData());
    if (hotkey && hotkey->empty())
        return std::nullopt;
    return hotkey;
}

// --- On-hotkey --------------------------------------------------------------

struct OnHotkey : NodeState {
    explicit OnHotkey(corv_node *node) : NodeState(node), children(corv_node_child_sink(node)) {}
    ~OnHotkey() { unregister(); }

    void unregister()
    {
        if (listener)
            HotkeyPoller::instance().remove(listener);
        listener = 0;
    }

    QByteArray text;
    corv_sink *children;
    std::uint64_t listener = 0;
};

void on_hotkey_name(void *data, char *buffer)
{
    const QByteArray &text = state_of<OnHotkey>(data)->text;
    if (text.isEmpty())
        write_name(buffer, corv_plugin_tr(plugin(), "OnHotkeyNode.Name"));
    else
        corv_tr_end_str(corv_tr_str(corv_plugin_tr_arg(plugin(), "OnHotkeyNode.Name.%1"), text.constData()),
                        buffer);
}

void on_hotkey_build(void *data, cui_generate_context *context)
{
    OnHotkey *node = state_of<OnHotkey>(data);
    const QByteArray text =
        owned(cui_hotkey(context, "!hotkey", corv_plugin_tr(plugin(), "OnHotkeyNode.Hotkey"), ""));
    if (text == node->text)
        return;
    node->text = text;
    node->unregister();
    if (const std::optional<Hotkey> hotkey = read_hotkey(text)) {
        // Runs on the poller thread: it only makes and posts the event.
        node->listener = HotkeyPoller::instance().add(*hotkey, [sink = node->children, text](bool held) {
            if (!held)
                return;
            corv_event *event = corv_event_create();
            corv_event_set(event, "hotkey", text.constData());
            corv_event_set(event, "state", "pressed");
            corv_event_post(sink, event);
            corv_event_destroy(event);
        });
    }
    corv_node_invalidate_name(node->node);
}

// --- Trigger-hotkey ---------------------------------------------------------

enum WaitMode { kWaitNone = 0, kWaitStart = 1, kWaitFinish = 2 };

struct TriggerHotkey : NodeState {
    explicit TriggerHotkey(corv_node *node) : NodeState(node), parent(corv_node_parent_sink(node)) {}
    ~TriggerHotkey()
    {
        if (queued_any)
            KeyInjector::instance().cancel(this);
        for (const auto &[ticket, event] : waiting)
            corv_event_destroy(event);
    }

    // The event waiting for the job of `ticket`, taken out; null if none.
    corv_event *take_event(std::uint64_t ticket)
    {
        QMutexLocker lock(&mutex);
        for (auto it = waiting.begin(); it != waiting.end(); ++it) {
            if (it->first == ticket) {
                corv_event *event = it->second;
                waiting.erase(it);
                return event;
            }
        }
        return nullptr;
    }

    // Runs on the injector thread when the job of `ticket` starts or ends.
    void release_event(std::uint64_t ticket)
    {
        if (corv_event *event = take_event(ticket)) {
            corv_event_post(parent, event);
            corv_event_destroy(event);
        }
    }

    QByteArray text;
    std::optional<Hotkey> hotkey;
    double seconds = kDefaultHoldSeconds;
    int mode = kWaitNone;
    corv_sink *parent;
    bool queued_any = false;
    std::uint64_t next_ticket = 1;
    QMutex mutex; // guards waiting
    std::deque<std::pair<std::uint64_t, corv_event *>> waiting; // (ticket, event), in job order
};

void trigger_hotkey_name(void *data, char *buffer)
{
    const TriggerHotkey *node = state_of<TriggerHotkey>(data);
    if (node->text.isEmpty()) {
        write_name(buffer, corv_plugin_tr(plugin(), "TriggerHotkeyNode.Name"));
        return;
    }
    const char *key = node->mode == kWaitNone ? "TriggerHotkeyNode.Name.%1.%2" : "TriggerHotkeyNode.Name.Wait.%1.%2";
    corv_tr_end_str(corv_tr_float(corv_tr_str(corv_plugin_tr_arg(plugin(), key), node->text.constData()),
                                  node->seconds),
                    buffer);
}

std::uint32_t trigger_hotkey_decoration(void *data)
{
    return state_of<TriggerHotkey>(data)->mode == kWaitNone ? 35 : 38;
}

void trigger_hotkey_build(void *data, cui_generate_context *context)
{
    TriggerHotkey *node = state_of<TriggerHotkey>(data);
    const QByteArray text =
        owned(cui_hotkey(context, "!hotkey", corv_plugin_tr(plugin(), "TriggerHotkeyNode.Hotkey"), ""));
    const double seconds = cui_float(context, "!seconds", corv_plugin_tr(plugin(), "TriggerHotkeyNode.Duration"),
                                     kDefaultHoldSeconds, 0.0, 3600.0);
    const char *const modes[] = {corv_plugin_tr(plugin(), "TriggerHotkeyNode.WaitNone"),
                                 corv_plugin_tr(plugin(), "TriggerHotkeyNode.WaitStart"),
                                 corv_plugin_tr(plugin(), "TriggerHotkeyNode.WaitFinish")};
    int mode = cui_radio_group(context, "mode", "", modes, 3, kWaitNone);
    if (mode < kWaitNone || mode > kWaitFinish)
        mode = kWaitNone;

    bool renamed = false;
    if (text != node->text) {
        node->text = text;
        node->hotkey = read_hotkey(text);
        renamed = true;
    }
    if (seconds != node->seconds) {
        node->seconds = seconds;
        renamed = true;
    }
    if (mode != node->mode) {
        node->mode = mode;
        corv_node_invalidate_decoration(node->node);
        renamed = true;
    }
    if (renamed)
        corv_node_invalidate_name(node->node);
}

void trigger_hotkey_on_event(void *data, corv_event *event)
{
    TriggerHotkey *node = state_of<TriggerHotkey>(data);
    if (!node->hotkey) {
        post_to_parent(node->node, event);
        return;
    }
    KeyInjector::Job job;
    job.owner = node;
    job.hotkey = *node->hotkey;
    job.hold_ms = to_milliseconds(node->seconds);
    node->queued_any = true;
    if (node->mode == kWaitNone) {
        KeyInjector::instance().queue(std::move(job));
        post_to_parent(node->node, event);
        return;
    }
    const std::uint64_t ticket = node->next_ticket++;
    auto pass = [node, ticket] { node->release_event(ticket); };
    (node->mode == kWaitStart ? job.on_start : job.on_finish) = pass;
    // Pausing every rack drops the press and the event with it.
    job.on_drop = [node, ticket] {
        if (corv_event *dropped = node->take_event(ticket))
            corv_event_destroy(dropped);
    };
    {
        QMutexLocker lock(&node->mutex);
        node->waiting.emplace_back(ticket, event);
    }
    if (!KeyInjector::instance().queue(std::move(job)))
        node->release_event(ticket); // shutting down or too many waiting: nothing will be pressed
}

} // namespace

bool needs_global_input(const char *type_id)
{
    const std::string_view id(type_id ? type_id : "");
    return id == "io.marrowfield.onhotkey" || id == "io.marrowfield.triggerhotkey";
}

const corv_node_type on_hotkey_node = {nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       create_state<OnHotkey>,
                                       destroy_state<OnHotkey>,
                                       on_hotkey_name,
                                       nullptr,
                                       on_hotkey_build,
                                       pass_on,
                                       pass_on,
                                       nullptr,
                                       nullptr};

const corv_node_type trigger_hotkey_node = {nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            create_state<TriggerHotkey>,
                                            destroy_state<TriggerHotkey>,
                                            trigger_hotkey_name,
                                            trigger_hotkey_decoration,
                                            trigger_hotkey_build,
                                            trigger_hotkey_on_event,
                                            pass_on,
                                            nullptr,
                                            nullptr};

} // namespace corv::nodes
