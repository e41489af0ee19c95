#include "nodes/mailbox.h"

#include <algorithm>

namespace corv::nodes {

MailboxRegistry &MailboxRegistry::instance()
{
    static MailboxRegistry registry;
    return registry;
}

MailboxRegistry::MailboxRegistry() = default;
MailboxRegistry::~MailboxRegistry() = default;

void MailboxRegistry::subscribe(Subscription &subscription, const QByteArray &name, void *subscriber,
                                Deliver deliver)
{
    if (subscription.subscribed() && subscription.name == name)
        return;
    unsubscribe(subscription);
    std::shared_ptr<List> &list = m_lists[name];
    if (!list)
        list = std::make_shared<List>();
    list->entries.push_back(std::make_unique<Entry>(Entry{subscriber, deliver}));
    subscription.name = name;
    subscription.entry = list->entries.back().get();
}

void MailboxRegistry::unsubscribe(Subscription &subscription)
{
    Entry *entry = subscription.entry;
    const QByteArray name = subscription.name;
    subscription = {};
    const auto it = m_lists.constFind(name);
    if (!entry || it == m_lists.cend())
        return;
    List &list = **it;
    if (list.delivering) {
        entry->subscriber = nullptr;
        entry->deliver = nullptr;
        list.needs_compaction = true;
        return;
    }
    std::erase_if(list.entries, [entry](const std::unique_ptr<Entry> &e) { return e.get() == entry; });
    tidy(name, list);
}

void MailboxRegistry::deliver(const QByteArray &name, corv_event *event)
{
    const auto it = m_lists.constFind(name);
    if (it == m_lists.cend())
        return;
    // Held for the whole delivery, so the list survives whatever the
    // subscribers do meanwhile.
    const std::shared_ptr<List> list = *it;
    const QByteArray outer = m_delivering;
    m_delivering = name;
    ++list->delivering;
    // Entries that join meanwhile are appended after `count` and wait for the
    // next delivery; blanked ones stay in place until the compaction.
    const std::size_t count = list->entries.size();
    for (std::size_t i = 0; i < count; ++i) {
        Entry &entry = *list->entries[i];
        if (entry.subscriber && entry.deliver)
            entry.deliver(entry.subscriber, event);
    }
    --list->delivering;
    m_delivering = outer;
    tidy(name, *list);
}

qsizetype MailboxRegistry::entry_count(const QByteArray &name) const
{
    const auto it = m_lists.constFind(name);
    return it == m_lists.cend() ? 0 : qsizetype((*it)->entries.size());
}

void MailboxRegistry::tidy(const QByteArray &name, List &list)
{
    if (list.delivering)
        return;
    if (list.needs_compaction) {
        std::erase_if(list.entries, [](const std::unique_ptr<Entry> &e) { return !e->subscriber; });
        list.needs_compaction = false;
    }
    if (list.entries.empty()) {
        const auto it = m_lists.constFind(name);
        if (it != m_lists.cend() && it->get() == &list)
            m_lists.erase(it);
    }
}

} // namespace corv::nodes
