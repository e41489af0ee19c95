#pragma once

// What every built-in node family shares. The node sources talk to the host
// only through the public SDK (corvane_sdk.h, corvane_cui.h), exactly as a
// plugin does; Qt Core is used for timers and containers.

#include "sdk/include/corvane/corvane_sdk.h"

#include <QByteArray>

namespace corv::nodes {

// The built-in plugin's handle, for its translations (the application's
// locale files). Set once by register_builtin_nodes().
corv_plugin *plugin();
void set_plugin(corv_plugin *plugin);

// Every instance state starts with the node handle it was created for, so
// the shared handlers below can find it. Instance data handed to the host is
// always a NodeState pointer.
struct NodeState {
    explicit NodeState(corv_node *n) : node(n) {}
    corv_node *node;
};

inline void *to_data(NodeState *state)
{
    return state;
}

template <typename T> T *state_of(void *data)
{
    return static_cast<T *>(static_cast<NodeState *>(data));
}

// The create and destroy callbacks of a node type whose instance data is a T.
template <typename T> void *create_state(corv_node *node)
{
    return to_data(new T(node));
}

template <typename T> void destroy_state(void *data)
{
    delete state_of<T>(data);
}

inline corv_node *node_of(void *data)
{
    return static_cast<NodeState *>(data)->node;
}

// The shared handlers of the registration table. pass_on posts the event to
// the node's parent sink, then frees the node's reference; drop frees it.
void pass_on(void *data, corv_event *event);
void drop(void *data, corv_event *event);

// Posts to one of the node's sinks and frees the node's reference.
void post_to_children(corv_node *node, corv_event *event);
void post_to_parent(corv_node *node, corv_event *event);

// Writes a display name into an SDK name buffer (CORV_TEXT_SIZE bytes): at
// most 255 bytes, never ending inside a UTF-8 sequence, always terminated.
void write_name(char *buffer, const char *text);
void write_name(char *buffer, const QByteArray &text);

// A copy of a string the host lends (null: empty).
inline QByteArray owned(const char *text)
{
    return text ? QByteArray(text) : QByteArray();
}

// Takes a text the host lends; true when it differs from `held`, which then
// holds a copy.
inline bool take_text(QByteArray &held, const char *text)
{
    const QByteArray value = owned(text);
    if (value == held)
        return false;
    held = value;
    return true;
}

// Seconds held as a float to a timer's millisecond count: truncated, and
// kept within what a timer takes.
int to_milliseconds(double seconds);

} // namespace corv::nodes
