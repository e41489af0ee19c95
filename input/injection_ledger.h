#pragma once

// Keeps the hotkey poller from answering the injector's own key presses:
// while an injection is under way (from just before its press until two
// polls have read the keyboard after its release), listeners that it can
// change keep their state without being called. So a rack that maps Ctrl+K
// to Ctrl+K does not run in a circle.

#include <cstdint>
#include <mutex>
#include <vector>

namespace corv::input {

class InjectionLedger
{
public:
    static InjectionLedger &instance();

    // The injector, around one job. `key` is the job's main key (0: none),
    // `modifiers` the modifier keys it presses (mask bits). begin() returns
    // 0 and records nothing while nobody listens.
    std::uint64_t begin(std::uint32_t key, std::uint32_t modifiers);
    void released(std::uint64_t id);

    // The poller, before each read of the keyboard.
    void start_poll();
    // The poller, for a listener whose state changed in this poll: true when
    // an injection under way can have caused it.
    bool caused_by_injection(std::uint32_t key, std::uint32_t mask) const;
    // The poller, when its listener count changes; 0 forgets everything.
    void set_listening(bool listening);

private:
    struct Entry {
        std::uint64_t id;
        std::uint32_t key;
        std::uint32_t modifiers;
        bool released = false;
        int polls_after_release = 0;
    };
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
    std::uint64_t m_next_id = 1;
    bool m_listening = false;
};

} // namespace corv::input
