#pragma once

namespace corv::engine {

// The outcome of every XML reader. The numbers are fixed; the project manager
// picks the message it shows from them.
enum class ReadResult : int {
    Ok = 0,
    ParseError = 1, // malformed XML or a grammar violation
    LoadError = 2,  // well-formed but inconsistent (duplicate ids)
    TooOld = 3,     // version below the oldest one read
    TooNew = 4,     // version above the newest one read
};

} // namespace corv::engine
