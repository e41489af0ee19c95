#include "input/hotkey_poller.h"

#include "input/injection_ledger.h"
#include "input/platform.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <algorithm>
#include <mutex>

namespace corv::input {

namespace {

std::mutex g_poller_mutex;
HotkeyPoller *g_poller = nullptr;

} // namespace

HotkeyPoller &HotkeyPoller::instance()
{
    // Made outside g_poller_mutex: the new poller holds m_stop for its whole
    // life, and shutdown() takes g_poller_mutex while it does.
    static HotkeyPoller *const poller = [] {
        auto *made = new HotkeyPoller;
        {
            std::lock_guard lock(g_poller_mutex);
            g_poller = made;
        }
        // Ends the thread with the application object; a later use (after
        // shutdown) finds a poller whose thread has stopped.
        if (QCoreApplication::instance())
            qAddPostRoutine(&HotkeyPoller::shutdown);
        return made;
    }();
    return *poller;
}

void HotkeyPoller::shutdown()
{
    HotkeyPoller *poller = nullptr;
    {
        std::lock_guard lock(g_poller_mutex);
        poller = g_poller;
    }
    if (!poller || poller->m_stopped)
        return;
    poller->m_stopped = true;
    poller->m_stop.unlock();
    {
        QMutexLocker lock(&poller->m_registry);
        poller->m_wake.notify_all();
    }
    poller->m_thread->wait();
}

HotkeyPoller::HotkeyPoller()
{
    m_stop.lock();
    m_thread.reset(QThread::create([this] { run(); }));
    m_thread->setObjectName(QStringLiteral("corv.hotkeys"));
    m_thread->start();
}

HotkeyPoller::~HotkeyPoller()
{
    if (!m_stopped) {
        m_stopped = true;
        m_stop.unlock();
        {
            QMutexLocker lock(&m_registry);
            m_wake.notify_all();
        }
        m_thread->wait();
    }
}

void HotkeyPoller::set_poll_interval(int ms)
{
    m_interval.store(std::clamp(ms, 0, 1000));
}

std::uint64_t HotkeyPoller::add(const Hotkey &hotkey, Callback callback)
{
    if (hotkey.empty() || !callback)
        return 0;
    QMutexLocker lock(&m_registry);
    const std::uint64_t id = m_next_id++;
    m_listeners.push_back({id, hotkey, 0});
    m_callbacks.push_back(std::move(callback));
    m_added = true;
    update_wanted();
    if (m_listeners.size() == 1) {
        InjectionLedger::instance().set_listening(true);
        m_wake.notify_all();
    }
    return id;
}

void HotkeyPoller::remove(std::uint64_t id)
{
    if (!id)
        return;
    QMutexLocker lock(&m_registry);
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        if (m_listeners[i].id == id) {
            m_listeners.erase(m_listeners.begin() + std::ptrdiff_t(i));
            m_callbacks.erase(m_callbacks.begin() + std::ptrdiff_t(i));
            update_wanted();
            if (m_listeners.empty())
                InjectionLedger::instance().set_listening(false);
            return;
        }
    }
}

int HotkeyPoller::listener_count() const
{
    QMutexLocker lock(&m_registry);
    return int(m_listeners.size());
}

void HotkeyPoller::update_wanted()
{
    m_wanted.reset();
    for (std::uint32_t vk : {kVkShift, kVkControl, kVkAlt, kVkLeftWin, kVkRightWin})
        m_wanted.set(vk);
    for (const Listener &listener : m_listeners)
        if (listener.hotkey.key < 256)
            m_wanted.set(listener.hotkey.key);
}

void HotkeyPoller::run()
{
    QMutexLocker lock(&m_registry);
    for (;;) {
        if (!m_backend_tried && !m_listeners.empty()) {
            // Opened on this thread, for this thread (an X11 connection of
            // its own). Without one the listeners never fire.
            m_backend_tried = true;
            m_backend = open_backend();
        }
        if (m_listeners.empty() || !m_backend) {
            // Asleep the keyboard's changes are not collected: the next
            // poll starts from the keyboard as it then is.
            if (m_backend && m_collecting) {
                m_backend->snapshot(m_down, m_wanted, nullptr);
                m_collecting = false;
            }
            if (m_stop.tryLock()) {
                m_stop.unlock();
                return;
            }
            m_wake.wait(m_registry);
            if (m_stop.tryLock()) {
                m_stop.unlock();
                return;
            }
            continue;
        }
        poll();
        lock.unlock();
        // The sleep between polls, and the way to stop.
        if (m_stop.tryLock(m_interval.load())) {
            m_stop.unlock();
            return;
        }
        lock.relock();
    }
}

void HotkeyPoller::poll()
{
    InjectionLedger::instance().start_poll();
    m_edges.clear();
    m_collecting = true;
    if (!m_backend->snapshot(m_down, m_wanted, &m_edges))
        return;
    ++m_polls;
    for (const KeyRecord &edge : m_edges)
        if (key_in(m_wanted, edge.vk) && m_state[edge.vk] == edge.up)
            change(edge.vk, !edge.up);
    // What the changes did not show (a backend without them, a change that
    // came between them and the read): keys let go first, then the keys
    // pressed, modifiers before the others.
    const KeySet differs = (m_state ^ m_down) & m_wanted;
    if (differs.any()) {
        const auto is_modifier = [](std::size_t vk) {
            return vk == kVkShift || vk == kVkControl || vk == kVkAlt || vk == kVkLeftWin || vk == kVkRightWin;
        };
        for (int pass = 0; pass < 4; ++pass) {
            const bool down = pass >= 2;
            const bool modifiers = pass == 1 || pass == 2;
            for (std::size_t vk = 0; vk < 256; ++vk)
                if (differs[vk] && m_down[vk] == down && is_modifier(vk) == modifiers)
                    change(std::uint32_t(vk), down);
        }
    }
    if (m_added || m_pending) {
        m_added = false;
        update_listeners();
    }
}

void HotkeyPoller::change(std::uint32_t vk, bool down)
{
    m_state[vk] = down;
    const bool injected = InjectionLedger::instance().take(vk, !down);
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        Listener &listener = m_listeners[i];
        const std::uint8_t state = matches(listener.hotkey, m_state) ? 1 : 0;
        if (!state)
            listener.pending = 0;
        if (state == listener.last_state)
            continue;
        // A combination that a key's release completes (Shift let go of
        // Ctrl+Shift+K leaves Ctrl+K) counts only once it has stayed held
        // through the next poll: letting go of a chord fires nothing.
        if (state && !down && !injected) {
            if (!listener.pending)
                listener.pending = 1;
            m_pending = true;
            continue;
        }
        listener.pending = 0;
        listener.last_state = state;
        if (!injected)
            m_callbacks[i](state != 0);
    }
}

void HotkeyPoller::update_listeners()
{
    bool pending = false;
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        Listener &listener = m_listeners[i];
        const std::uint8_t state = matches(listener.hotkey, m_state) ? 1 : 0;
        if (listener.pending == 1 && state) {
            listener.pending = 2; // held through this poll's end; the next one decides
            pending = true;
            continue;
        }
        listener.pending = 0;
        if (state == listener.last_state)
            continue;
        listener.last_state = state;
        m_callbacks[i](state != 0);
    }
    m_pending = pending;
}

} // namespace corv::input
