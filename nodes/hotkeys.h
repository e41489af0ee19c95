#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

// The hotkey nodes: on-hotkey (a source that fires while the keyboard holds
// its combination) and trigger-hotkey (an action that presses one). Records
// with callbacks only, as the registration table wants them.
namespace corv::nodes {

extern const corv_node_type on_hotkey_node;
extern const corv_node_type trigger_hotkey_node;
// Active Window: a filter on the window that has the keyboard
// (active_window.cpp).
extern const corv_node_type active_window_node;

// True for the types that need global keyboard input to do anything.
bool needs_global_input(const char *type_id);

} // namespace corv::nodes
