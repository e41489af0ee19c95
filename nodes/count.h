#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The count nodes. Their types join the registration table with the compare
// work item; the migration of the retired "io.marrowfield.count" is here
// already.
namespace corv::nodes {

// Maps "io.marrowfield.count" by its "mode" (0 countblock, 1
// countdiscretetime, 2 countrollingtime, 3 countchildreset; missing: 0) and
// moves "size", "seconds", "threshold" and "key" to their "!" forms.
bool migrate_count(void *user_data, corv_store *store, char *out_id);

} // namespace corv::nodes
