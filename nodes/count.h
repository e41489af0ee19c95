#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The count nodes: each counts the events from its parent into an event key
// ("!key", "count" unless set) and runs its children when its rule says so:
// every size-th event (countblock), when threshold events came within a
// rolling window (countrollingtime), once per time window with the total
// (countdiscretetime), or with every event until the children hand one back
// (countchildreset). Records with callbacks only; the migration of the
// retired "io.marrowfield.count" maps onto them.
namespace corv::nodes {

extern const corv_node_type count_block_node;
extern const corv_node_type count_discrete_time_node;
extern const corv_node_type count_rolling_time_node;
extern const corv_node_type count_child_reset_node;

// Maps "io.marrowfield.count" by its "mode" (0 countblock, 1
// countdiscretetime, 2 countrollingtime, 3 countchildreset; missing: 0) and
// moves "size", "seconds", "threshold" and "key" to their "!" forms.
bool migrate_count(void *user_data, corv_store *store, char *out_id);

} // namespace corv::nodes
