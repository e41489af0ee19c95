#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The timing nodes, which hold events back in time: delay, debounce, the
// three rate limits and the sequential node. Each hands every event at once
// into its own children and decides when, and whether, it goes on to the
// parent. The records carry the callbacks only (see flow.h).
namespace corv::nodes {

extern const corv_node_type delay_node;
extern const corv_node_type debounce_node;
extern const corv_node_type rate_limit_queue_node;
extern const corv_node_type rate_limit_earliest_node;
extern const corv_node_type rate_limit_latest_node;
extern const corv_node_type sequential_node;

// Maps the retired "io.marrowfield.ratelimit" to the rate-limit type of its
// mode, moving its delay to "!delay".
bool migrate_rate_limit(void *user_data, corv_store *store, char *out_id);

} // namespace corv::nodes
