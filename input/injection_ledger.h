#pragma once

// Keeps the hotkey poller from answering the injector's own key presses.
// The injector writes down every key change it sends (key, direction,
// time) just before sending it; the poller, for every key change it sees,
// asks whether it was one of those and takes it off the list. Changes the
// injector caused leave listeners in their new state without calling them;
// any other change of the same key (the user's) calls them as usual. An
// entry that no read of the keyboard has shown once two polls have started
// after it was sent is dropped (the change had no effect: the key was
// already there). So a rack that maps Ctrl+K to Alt+J does not run in a
// circle, and a rack that maps J to J does not swallow the user's next J.
//
// Injected input carries no private marker, so this bookkeeping is how the
// program knows its own keys; on X11 the injector's and xdotool's keys both
// come from the XTEST device and look alike. Its one blind spot: when the
// user changes a key the same way within the same poll as a later
// injection of that key (inside the gap, "inputgapms", which is longer
// than a poll by default), the two cannot be told apart.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

namespace corv::input {

class InjectionLedger
{
public:
    using Clock = std::chrono::steady_clock;

    static InjectionLedger &instance();

    // The injector, just before it sends a change of `vk` (`up`: let go),
    // and once the changes it announced have been sent. Records nothing
    // while nobody listens.
    void sending(std::uint32_t vk, bool up);
    void sent();

    // The poller, as each poll starts: forgets entries that two polls
    // started since they were sent have not shown.
    void start_poll();
    // The poller, for each change of a key it sees: true when the injector
    // sent it (the entry is used up).
    bool take(std::uint32_t vk, bool up);
    // The poller, when its listener count changes; false forgets everything.
    void set_listening(bool listening);

    // Entries waiting to be seen (for tests).
    int outstanding() const;

private:
    struct Entry {
        std::uint32_t vk;
        bool up;
        Clock::time_point sent; // once sent
        bool sending = true;
        int polls_since = 0;
    };
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries; // in the order sent
    bool m_listening = false;
};

} // namespace corv::input
