#include "input/key_injector.h"

#include "input/injection_ledger.h"
#include "input/platform.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutexLocker>

#include <algorithm>
#include <mutex>

namespace corv::input {

namespace {

std::mutex g_injector_mutex;
KeyInjector *g_injector = nullptr;

} // namespace

KeyInjector &KeyInjector::instance()
{
    static KeyInjector *const injector = [] {
        auto *made = new KeyInjector;
        {
            std::lock_guard lock(g_injector_mutex);
            g_injector = made;
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
        std::lock_guard lock(g_injector_mutex);
        injector = g_injector;
    }
    if (injector)
        injector->stop_thread();
}

void KeyInjector::cancel_everything()
{
    KeyInjector *injector = nullptr;
    {
        std::lock_guard lock(g_injector_mutex);
        injector = g_injector;
    }
    if (injector)
        injector->cancel_all();
}

KeyInjector::KeyInjector()
{
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
        m_wake.notify_all();
    }
    m_thread->wait();
}

void KeyInjector::set_gap(int ms)
{
    m_gap.store(std::clamp(ms, 0, 1000));
}

void KeyInjector::set_queue_limit(int jobs)
{
    m_limit.store(std::max(1, jobs));
}

std::uint64_t KeyInjector::queue(Job job)
{
    QMutexLocker lock(&m_mutex);
    if (m_stopped)
        return 0;
    if (m_queue.size() >= std::size_t(m_limit.load())) {
        if (!m_warned_full) {
            m_warned_full = true;
            qCWarning(lc_input, "More than %d key presses are waiting; further ones are dropped", m_limit.load());
        }
        return 0;
    }
    const std::uint64_t id = m_next_id++;
    m_queue.push_back({id, std::move(job)});
    m_wake.notify_all();
    return id;
}

void KeyInjector::cancel(const void *owner)
{
    QMutexLocker lock(&m_mutex);
    std::erase_if(m_queue, [owner](const Queued &queued) { return queued.job.owner == owner; });
    const auto owns = [&] {
        return (m_starting && m_starting_owner == owner)
               || std::any_of(m_holds.begin(), m_holds.end(), [&](const Hold &hold) { return hold.owner == owner; });
    };
    if (!owns())
        return;
    if (m_starting && m_starting_owner == owner)
        m_abandon_start = true;
    for (Hold &hold : m_holds)
        if (hold.owner == owner)
            hold.abandoned = true;
    m_wake.notify_all();
    while (owns())
        m_changed.wait(m_mutex);
}

void KeyInjector::cancel_all()
{
    std::vector<std::function<void()>> dropped;
    {
        QMutexLocker lock(&m_mutex);
        for (Queued &queued : m_queue)
            if (queued.job.on_drop)
                dropped.push_back(std::move(queued.job.on_drop));
        m_queue.clear();
        if (m_starting)
            m_abandon_start = true;
        for (Hold &hold : m_holds)
            hold.abandoned = true;
        m_wake.notify_all();
        while (m_starting || !m_holds.empty())
            m_changed.wait(m_mutex);
        if (m_queue.empty())
            m_warned_full = false;
    }
    for (const std::function<void()> &drop : dropped)
        drop();
}

bool KeyInjector::idle() const
{
    return m_queue.empty() && m_holds.empty() && !m_starting;
}

int KeyInjector::pending() const
{
    QMutexLocker lock(&m_mutex);
    return int(m_queue.size() + m_holds.size()) + (m_starting ? 1 : 0);
}

bool KeyInjector::wait_idle(int ms) const
{
    QDeadlineTimer deadline(ms);
    QMutexLocker lock(&m_mutex);
    while (!idle()) {
        if (m_changed.wait_for(m_mutex, deadline.remainingTimeAsDuration()) == std::cv_status::timeout)
            return idle();
    }
    return true;
}

std::optional<KeyInjector::Clock::time_point> KeyInjector::next_start() const
{
    if (m_queue.empty())
        return std::nullopt;
    const std::uint32_t key = m_queue.front().job.hotkey.key;
    if (key != 0)
        for (const Hold &hold : m_holds)
            if ((hold.injection.pressed() & Injection::kKeyPressed) && hold.injection.hotkey().key == key)
                return std::nullopt;
    const auto gap = std::chrono::milliseconds(m_gap.load());
    if (!m_last_id)
        return Clock::time_point::min();
    if (m_last_held)
        return m_last_press + std::max<std::chrono::milliseconds>(gap, std::chrono::milliseconds(kLongHoldMs));
    return m_last_release + gap;
}

void KeyInjector::send(const std::vector<KeyRecord> &records)
{
    if (records.empty())
        return;
    InjectionLedger &ledger = InjectionLedger::instance();
    for (const KeyRecord &record : records)
        ledger.sending(record.vk, record.up);
    if (m_backend)
        m_backend->send(records.data(), records.size());
    ledger.sent();
}

void KeyInjector::start_job(Queued queued, QMutexLocker<QMutex> &lock)
{
    m_starting = true;
    m_starting_owner = queued.job.owner;
    m_abandon_start = false;
    lock.unlock();

    if (!m_backend_tried) {
        m_backend_tried = true;
        m_backend = open_backend();
    }
    const Hotkey hotkey = queued.job.hotkey;
    KeySet down;
    if (m_backend)
        m_backend->snapshot(down, Injection::keys_to_read(hotkey));
    Injection injection(hotkey);
    send(injection.press(down));
    const Clock::time_point pressed = Clock::now();

    lock.relock();
    bool abandoned = m_abandon_start || m_stopping;
    if (!abandoned && queued.job.on_start) {
        lock.unlock();
        queued.job.on_start();
        lock.relock();
        abandoned = m_abandon_start || m_stopping;
    }
    m_last_id = queued.id;
    m_last_press = pressed;
    m_last_held = true;
    m_holds.push_back({queued.id, queued.job.owner, injection,
                       pressed + std::chrono::milliseconds(std::max(0, queued.job.hold_ms)),
                       std::move(queued.job.on_finish), std::move(queued.job.on_drop), abandoned});
    m_starting = false;
    m_starting_owner = nullptr;
}

void KeyInjector::release_hold(std::size_t index, QMutexLocker<QMutex> &lock)
{
    Hold hold = std::move(m_holds[index]);
    m_holds.erase(m_holds.begin() + std::ptrdiff_t(index));
    // Still counted as running for cancel() and wait_idle() until its
    // callback is done.
    m_starting = true;
    m_starting_owner = hold.owner;
    lock.unlock();
    send(hold.injection.release());
    const Clock::time_point released = Clock::now();
    const std::function<void()> &then = hold.abandoned ? hold.on_drop : hold.on_finish;
    if (then)
        then();
    lock.relock();
    m_starting = false;
    m_starting_owner = nullptr;
    if (hold.id == m_last_id) {
        m_last_held = false;
        m_last_release = released;
    }
    if (m_queue.empty())
        m_warned_full = false;
    m_changed.notify_all();
}

void KeyInjector::run()
{
    QMutexLocker lock(&m_mutex);
    for (;;) {
        if (m_stopping) {
            // Queued jobs are dropped (nothing of theirs was pressed); what
            // is held is let go.
            m_queue.clear();
            for (Hold &hold : m_holds)
                hold.abandoned = true;
            while (!m_holds.empty())
                release_hold(0, lock);
            m_changed.notify_all();
            return;
        }
        // Releases that are due, in the order pressed.
        const Clock::time_point now = Clock::now();
        const auto due = std::find_if(m_holds.begin(), m_holds.end(),
                                      [&](const Hold &hold) { return hold.abandoned || hold.until <= now; });
        if (due != m_holds.end()) {
            release_hold(std::size_t(due - m_holds.begin()), lock);
            continue;
        }
        const std::optional<Clock::time_point> start = next_start();
        if (start && *start <= now) {
            Queued queued = std::move(m_queue.front());
            m_queue.pop_front();
            start_job(std::move(queued), lock);
            m_changed.notify_all();
            continue;
        }
        // Sleep until the next release or start, or until woken.
        std::optional<Clock::time_point> wake = start;
        for (const Hold &hold : m_holds)
            if (!wake || hold.until < *wake)
                wake = hold.until;
        if (wake)
            m_wake.wait_until(m_mutex, *wake);
        else
            m_wake.wait(m_mutex);
    }
}

} // namespace corv::input
