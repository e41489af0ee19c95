#include "input/key_injector.h"

#include "input/injection_ledger.h"
#include "input/platform.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutexLocker>

#include <algorithm>
#include <mutex>
#include <vector>

namespace corv::input {

namespace {

// Waits on `cv` until woken or the deadline passes; false when it passed.
bool wait_until(std::condition_variable_any &cv, QMutex &mutex, const QDeadlineTimer &deadline)
{
    if (deadline.isForever()) {
        cv.wait(mutex);
        return true;
    }
    return cv.wait_for(mutex, deadline.remainingTimeAsDuration()) == std::cv_status::no_timeout;
}

std::mutex g_instance_mutex;
KeyInjector *g_instance = nullptr;

} // namespace

KeyInjector &KeyInjector::instance()
{
    // Made outside g_instance_mutex: the new injector holds m_stop for its
    // whole life, and shutdown() takes g_instance_mutex while it does.
    static KeyInjector *const injector = [] {
        auto *made = new KeyInjector;
        {
            std::lock_guard lock(g_instance_mutex);
            g_instance = made;
        }
        if (QCoreApplication::instance())
            qAddPostRoutine(&KeyInjector::shutdown);
        return made;
    }();
    return *injector;
}

void KeyInjector::shutdown()
{
    KeyInjector *injector = nullptr;
    {
        std::lock_guard lock(g_instance_mutex);
        injector = g_instance;
    }
    if (injector)
        injector->stop_thread();
}

KeyInjector::KeyInjector()
{
    m_stop.lock();
    m_thread.reset(QThread::create([this] { run(); }));
    m_thread->setObjectName(QStringLiteral("corv.keys"));
    m_thread->start();
}

KeyInjector::~KeyInjector()
{
    stop_thread();
}

void KeyInjector::stop_thread()
{
    {
        QMutexLocker lock(&m_mutex);
        if (m_stopped)
            return;
        m_stopped = true;
        m_stopping = true;
        m_stop.unlock();
        m_wake.notify_all();
    }
    m_thread->wait();
}

void KeyInjector::set_gap(int ms)
{
    m_gap.store(std::clamp(ms, 0, 1000));
}

std::uint64_t KeyInjector::queue(Job job)
{
    QMutexLocker lock(&m_mutex);
    if (m_stopped)
        return 0;
    const std::uint64_t id = m_next_id++;
    m_queue.push_back({id, std::move(job)});
    m_wake.notify_all();
    return id;
}

void KeyInjector::cancel(const void *owner)
{
    QMutexLocker lock(&m_mutex);
    std::erase_if(m_queue, [owner](const Queued &queued) { return queued.job.owner == owner; });
    if (m_running && m_running_owner == owner) {
        m_abandon = true;
        m_wake.notify_all();
        while (m_running && m_running_owner == owner)
            m_changed.wait(m_mutex);
    }
}

int KeyInjector::pending() const
{
    QMutexLocker lock(&m_mutex);
    return int(m_queue.size()) + (m_running ? 1 : 0);
}

bool KeyInjector::wait_idle(int ms) const
{
    QDeadlineTimer deadline(ms);
    QMutexLocker lock(&m_mutex);
    while (!m_queue.empty() || m_running)
        if (!wait_until(m_changed, m_mutex, deadline))
            return m_queue.empty() && !m_running;
    return true;
}

void KeyInjector::run()
{
    QMutexLocker lock(&m_mutex);
    for (;;) {
        while (m_queue.empty() && !m_stopping)
            m_wake.wait(m_mutex);
        if (m_stopping) {
            // Queued jobs are dropped; nothing of theirs was pressed.
            m_queue.clear();
            m_changed.notify_all();
            return;
        }
        Queued current = std::move(m_queue.front());
        m_queue.pop_front();
        m_running = true;
        m_running_owner = current.job.owner;
        m_abandon = false;
        lock.unlock();

        if (!m_backend_tried) {
            m_backend_tried = true;
            m_backend = open_backend();
        }
        const Hotkey hotkey = current.job.hotkey;

        // Press what is not down yet.
        const KeySet wanted = Injection::keys_to_read(hotkey);
        KeySet down;
        if (m_backend)
            m_backend->snapshot(down, wanted);
        Injection injection(hotkey);
        std::vector<KeyRecord> records = injection.press(down);
        const std::uint64_t ledger_id = InjectionLedger::instance().begin(hotkey.key, injection.pressed_modifiers());
        if (m_backend)
            m_backend->send(records.data(), records.size());

        bool abandoned = false;
        lock.relock();
        abandoned = m_abandon || m_stopping;
        lock.unlock();
        if (!abandoned && current.job.on_start)
            current.job.on_start();

        // Hold, cut short by cancel() or stop.
        lock.relock();
        QDeadlineTimer hold(std::max(0, current.job.hold_ms), Qt::PreciseTimer);
        while (!m_abandon && !m_stopping && !hold.hasExpired())
            wait_until(m_wake, m_mutex, hold);
        abandoned = m_abandon || m_stopping;
        lock.unlock();

        // Release exactly what was pressed.
        records = injection.release();
        if (m_backend)
            m_backend->send(records.data(), records.size());
        InjectionLedger::instance().released(ledger_id);

        if (!abandoned && current.job.on_finish)
            current.job.on_finish();

        lock.relock();
        m_running = false;
        m_running_owner = nullptr;
        m_changed.notify_all();
        // The gap before the next job, on the stop mutex: only stopping cuts
        // it short.
        lock.unlock();
        const int gap = m_gap.load();
        if (gap > 0 && m_stop.tryLock(gap)) {
            m_stop.unlock();
            lock.relock();
            continue; // stopping: the loop's check ends the thread
        }
        lock.relock();
    }
}

} // namespace corv::input
