#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The nodes that look at an event's content: compare (a gate on the rest of
// the sequence, by a text or number test of one key) and evaluate (writes an
// expression's result into a key). Records with callbacks only, as the
// registration table wants them.
namespace corv::nodes {

extern const corv_node_type compare_node;
extern const corv_node_type evaluate_node;

// An event text read as a number the way strtod reads it in the C locale
// (leading blanks skipped, the longest numeric prefix, hexadecimal, inf and
// nan; no numeric prefix: 0), whatever locale the process runs in.
double read_number(const char *text);

} // namespace corv::nodes
