#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The nodes that connect racks to text files and to the user's eyes:
// on-file-changed (a source that starts an event whenever a watched file
// changes), read text file, write text file (a template through the
// expression language) and display (the keys and values of the last event in
// its panel). Records with callbacks only, as the registration table wants
// them.
namespace corv::nodes {

extern const corv_node_type on_file_changed_node;
extern const corv_node_type read_text_node;
extern const corv_node_type write_text_node;
extern const corv_node_type display_node;

} // namespace corv::nodes
