#include "input/injection_ledger.h"

#include <algorithm>

namespace corv::input {

InjectionLedger &InjectionLedger::instance()
{
    static InjectionLedger ledger;
    return ledger;
}

void InjectionLedger::sending(std::uint32_t vk, bool up)
{
    std::lock_guard lock(m_mutex);
    if (m_listening)
        m_entries.push_back({vk, up, {}});
}

void InjectionLedger::sent()
{
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(m_mutex);
    for (Entry &entry : m_entries) {
        if (entry.sending) {
            entry.sending = false;
            entry.sent = now;
        }
    }
}

void InjectionLedger::start_poll()
{
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(m_mutex);
    if (m_entries.empty())
        return;
    // A change reaches the key state before the first read that starts
    // after it was sent; a second leaves room for systems that apply
    // injected input a moment late.
    for (Entry &entry : m_entries)
        if (!entry.sending && entry.sent < now)
            ++entry.polls_since;
    std::erase_if(m_entries, [](const Entry &entry) { return entry.polls_since > 2; });
}

bool InjectionLedger::take(std::uint32_t vk, bool up)
{
    std::lock_guard lock(m_mutex);
    const auto it = std::find_if(m_entries.begin(), m_entries.end(),
                                 [&](const Entry &entry) { return entry.vk == vk && entry.up == up; });
    if (it == m_entries.end())
        return false;
    m_entries.erase(it);
    return true;
}

void InjectionLedger::set_listening(bool listening)
{
    std::lock_guard lock(m_mutex);
    m_listening = listening;
    if (!listening)
        m_entries.clear();
}

int InjectionLedger::outstanding() const
{
    std::lock_guard lock(m_mutex);
    return int(m_entries.size());
}

} // namespace corv::input
