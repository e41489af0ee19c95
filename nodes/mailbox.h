#pragma once

#include "sdk/include/corvane/corvane_sdk.h"

#include <QByteArray>
#include <QHash>

#include <memory>
#include <vector>

namespace corv::nodes {

// The process-wide registry of mailboxes that send and receive nodes meet
// at: a mailbox name (bytes, compared exactly) to its subscribers in the
// order they joined. Main thread only.
//
// A delivery may run code that changes subscriptions. Leaving a mailbox
// while it is being delivered only blanks the subscriber's entry, and the
// list is compacted once the delivery is over; subscribers that join during
// a delivery get the next one. So a delivery reaches every subscriber that
// was there when it began and stays, each exactly once.
class MailboxRegistry
{
public:
    using Deliver = void (*)(void *subscriber, corv_event *event);

    // One subscriber's place in a mailbox list. Owned by the list.
    struct Entry {
        void *subscriber = nullptr; // null: blanked
        Deliver deliver = nullptr;
    };

    // A subscriber's side: the mailbox it is in and its place there.
    struct Subscription {
        QByteArray name;
        Entry *entry = nullptr;

        // In a mailbox, the one named "" included.
        bool subscribed() const { return entry != nullptr; }
    };

    static MailboxRegistry &instance();

    MailboxRegistry();
    ~MailboxRegistry();
    MailboxRegistry(const MailboxRegistry &) = delete;
    MailboxRegistry &operator=(const MailboxRegistry &) = delete;

    // Moves `subscription` to the mailbox `name`; nothing when it is there
    // already. The empty name is a mailbox like any other.
    void subscribe(Subscription &subscription, const QByteArray &name, void *subscriber,
                   Deliver deliver);
    // Leaves the subscription's mailbox, if any.
    void unsubscribe(Subscription &subscription);

    // Hands `event` to every subscriber of `name`, in order. The event stays
    // the caller's; subscribers post it on.
    void deliver(const QByteArray &name, corv_event *event);

    // The mailbox being delivered (empty when none).
    const QByteArray &delivering() const { return m_delivering; }
    // Entries of a mailbox's list, blanked ones included (0 when none).
    qsizetype entry_count(const QByteArray &name) const;

private:
    struct List {
        std::vector<std::unique_ptr<Entry>> entries;
        int delivering = 0;     // nesting depth of deliveries running over it
        bool needs_compaction = false;
    };

    void tidy(const QByteArray &name, List &list);

    QHash<QByteArray, std::shared_ptr<List>> m_lists;
    QByteArray m_delivering;
};

} // namespace corv::nodes
