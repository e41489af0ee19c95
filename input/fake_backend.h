#pragma once

// An in-memory keyboard for the unit tests: a key state that "the user"
// changes with press() and release(), and the batches that backends over it
// send, which change the same state. Every backend made over one keyboard
// shares it, as the poller's and the injector's share the real one. Every
// change is also kept in order, for the edges a read hands out: all of them
// as X11 does, or in the Windows way, only which keys went down since the
// last read (see edges_from_recent_presses). Qt-free.

#include "input/keyboard_backend.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace corv::input {

class FakeKeyboard : public std::enable_shared_from_this<FakeKeyboard>
{
public:
    // The user holds or lets go of a key (generic modifier codes included).
    void press(std::uint32_t vk);
    void release(std::uint32_t vk);
    void release_all();
    // Changes the keys in this order at once: all of them between two reads.
    void apply(const std::vector<KeyRecord> &changes);
    // Edges as Windows reports them (true) or every change, as X11 (false).
    void set_windows_edges(bool windows) { m_windows_edges = windows; }
    KeySet down() const;

    // Every record sent so far, in order; and forgets them.
    std::vector<KeyRecord> sent() const;
    void clear_sent();
    // How often the keyboard was read.
    std::uint64_t snapshots() const { return m_snapshots.load(); }

    std::unique_ptr<KeyboardBackend> make_backend();

private:
    friend class FakeBackend;
    mutable std::mutex m_mutex;
    KeySet m_down;
    std::vector<KeyRecord> m_sent;
    std::vector<KeyRecord> m_changes; // every change of m_down, in order
    std::atomic<bool> m_windows_edges{false};
    std::atomic<std::uint64_t> m_snapshots{0};
};

} // namespace corv::input
