#include "input/injection_ledger.h"

#include <algorithm>

namespace corv::input {

InjectionLedger &InjectionLedger::instance()
{
    static InjectionLedger ledger;
    return ledger;
}

std::uint64_t InjectionLedger::begin(std::uint32_t key, std::uint32_t modifiers)
{
    std::lock_guard lock(m_mutex);
    if (!m_listening)
        return 0;
    const std::uint64_t id = m_next_id++;
    m_entries.push_back({id, key, modifiers});
    return id;
}

void InjectionLedger::released(std::uint64_t id)
{
    if (!id)
        return;
    std::lock_guard lock(m_mutex);
    for (Entry &entry : m_entries)
        if (entry.id == id)
            entry.released = true;
}

void InjectionLedger::start_poll()
{
    std::lock_guard lock(m_mutex);
    if (m_entries.empty())
        return;
    // A release reaches the key state before the next read starts; one more
    // poll leaves room for systems that apply injected input a moment late.
    for (Entry &entry : m_entries)
        if (entry.released)
            ++entry.polls_after_release;
    std::erase_if(m_entries, [](const Entry &entry) { return entry.polls_after_release > 2; });
}

bool InjectionLedger::caused_by_injection(std::uint32_t key, std::uint32_t mask) const
{
    std::lock_guard lock(m_mutex);
    return std::any_of(m_entries.begin(), m_entries.end(), [&](const Entry &entry) {
        return key != 0 ? entry.key == key : (entry.modifiers & mask) != 0;
    });
}

void InjectionLedger::set_listening(bool listening)
{
    std::lock_guard lock(m_mutex);
    m_listening = listening;
    if (!listening)
        m_entries.clear();
}

} // namespace corv::input
