#pragma once

#include <cstdint>

namespace corv::cui {

// How soon a surface is rebuilt once something asks for it.
enum InvalidateMode : std::uint32_t {
    Deferred = 0,  // at the next turn of the event loop
    Debounced = 1, // 500 ms after the first request, unless something sooner is pending
    Immediate = 2, // at once, synchronously
};

// Bits of a field's invalidate triggers: the events on which it asks for a rebuild.
enum Trigger : std::uint32_t {
    TriggerValueChanged = 1,
    TriggerPressed = 2,
    TriggerClicked = 4,
    TriggerSelectedRack = 8,
    TriggerReserved = 16, // part of the default set; nothing reads it
    TriggerEditingStarted = 32,
    TriggerEditingFinished = 64,
};

// What every field's triggers are reset to at the start of each build.
inline constexpr std::uint32_t kDefaultTriggers =
    TriggerValueChanged | TriggerClicked | TriggerReserved;

// The delay of a debounced rebuild.
inline constexpr int kDebounceMs = 500;

} // namespace corv::cui
