#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The schedule source: starts an event by the clock, every N seconds at a
// fixed rate, daily at a time of day, or once a given time after it started
// (when its project opened). Each event carries "time" (local ISO 8601 date
// and time) and "count" (firings since the node started). A record with
// callbacks only, as the registration wants it.
namespace corv::nodes {

extern const corv_node_type on_schedule_node;

} // namespace corv::nodes
