#include "input/hotkey_poller.h"

#include "input/injection_ledger.h"
#include "input/platform.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <algorithm>
#include <mutex>

namespace corv::input {

namespace {

std::mutex g_instance_mutex;
HotkeyPoller *g_instance = nullptr;

} // namespace

HotkeyPoller &HotkeyPoller::instance()
{
    // Made outside g_instance_mutex: the new poller holds m_stop for its whole
    // life, and shutdown() takes g_instance_mutex while it does.
    static HotkeyPoller *const poller = [] {
        auto *made = new HotkeyPoller;
        {
            std::lock_guard lock(g_instance_mutex);
            g_instance = made;
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
        std::lock_guard lock(g_instance_mutex);
        poller = g_instance;
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
    InjectionLedger &ledger = InjectionLedger::instance();
    ledger.start_poll();
    if (!m_backend->snapshot(m_down, m_wanted))
        return;
    ++m_polls;
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        Listener &listener = m_listeners[i];
        const std::uint8_t state = matches(listener.hotkey, m_down) ? 1 : 0;
        if (state == listener.last_state)
            continue;
        listener.last_state = state;
        if (!ledger.caused_by_injection(listener.hotkey.key, listener.hotkey.mask))
            m_callbacks[i](state != 0);
    }
}

} // namespace corv::input
