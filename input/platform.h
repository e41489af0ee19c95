#pragma once

// Which keyboard backend the poller and the injector use, and hotkey text
// read against the current keyboard layout.

#include "input/hotkey.h"
#include "input/keyboard_backend.h"

#include <QLoggingCategory>

#include <functional>
#include <memory>
#include <optional>

namespace corv::input {

Q_DECLARE_LOGGING_CATEGORY(lc_input)

using BackendFactory = std::function<std::unique_ptr<KeyboardBackend>()>;

// A backend for the calling thread: the platform's own unless a factory was
// set. Null when the desktop offers no global keyboard input (Wayland
// without X11, no display): that is logged once per process, and the
// hotkey nodes stay idle.
std::unique_ptr<KeyboardBackend> open_backend();

// Whether hotkeys can work here: a backend opens (the platform's, or the
// factory's). Asked once and remembered until the factory changes; a
// missing backend is logged as by open_backend().
bool global_input_available();

// Replaces the platform's backend (tests: a FakeKeyboard's). Affects
// backends opened afterwards; an empty factory restores the platform's.
void set_backend_factory(BackendFactory factory);

// Reads hotkey text (parse_hotkey) with character keys looked up in the
// current layout. Nothing for text that names no known key.
std::optional<Hotkey> hotkey_from_text(std::string_view text);

} // namespace corv::input
