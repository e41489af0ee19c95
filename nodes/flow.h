#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The flow nodes, which only steer events: fork, forward (to another rack),
// loop, stop, send and receive (mailboxes between racks), and the on-custom
// source node. Each record carries the callbacks only; the registration
// table adds id, name, category, icon and, where the record has none, the
// decoration.
namespace corv::nodes {

extern const corv_node_type fork_node;
extern const corv_node_type forward_node;
extern const corv_node_type loop_node;
extern const corv_node_type stop_node;
extern const corv_node_type send_node;
extern const corv_node_type receive_node;
extern const corv_node_type on_custom_node;

// Sets the "key: value" lines of an on-custom scope text into event, later
// lines winning. Leading and trailing spaces of keys and values are cut; a
// line without ':' is skipped.
void apply_scope(corv_event *event, const char *scope);

} // namespace corv::nodes
