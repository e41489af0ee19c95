#pragma once

#include "update/candidates.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QVersionNumber>

namespace corv::update {

// Decides which entries are installed together. Every component with
// candidates is a node; the "requires" of an entry are edges to other
// components with a minimum version.
//
// Rules: a component the user did not skip installs its newest candidate
// whose requirements can be met. A requirement is met by the installed
// version, by a version another installed entry "provides", or by installing
// a candidate of that component at least as new; such a component is
// installed as a dependency even when the user skipped it. A component none
// of whose candidates can have its requirements met is blocked and not
// installed (nor is anything that needs it).
class DependencyGraph {
public:
    enum class State { Install, Dependency, Skipped, Blocked };

    struct Requirement {
        QString id;
        QString name; // the component's name where known, else the id
        QVersionNumber version;
        bool met = false; // by what is installed or will be
    };

    struct Install {
        ComponentUpdate update;
        Entry entry;
    };

    // `installed`: the current version of every component of the program,
    // also those without an update, by id.
    DependencyGraph(QList<ComponentUpdate> updates, QMap<QString, QVersionNumber> installed,
                    QMap<QString, QString> names = {});

    qsizetype count() const { return m_nodes.size(); }
    const ComponentUpdate &update(qsizetype index) const { return m_nodes[index].update; }
    qsizetype index_of(const QString &id) const;

    // The user's choice; dependencies of what is installed still install.
    void set_skipped(qsizetype index, bool skipped);
    bool is_skipped(qsizetype index) const { return m_nodes[index].skipped; }

    State state(qsizetype index) const;
    // The entry to install; for a skipped or blocked component the newest
    // candidate (what the window shows).
    const Entry &entry(qsizetype index) const;
    // The requirements of entry(index).
    QList<Requirement> requirements(qsizetype index) const;
    // Components whose installed entry requires this one, by index.
    QList<qsizetype> dependents(qsizetype index) const;
    // Components installed only because this one needs them, transitively.
    QList<qsizetype> installed_with(qsizetype index) const;
    // Candidates of the component that are passed over: older than the one
    // installed, or all of them when it is not installed.
    QList<Entry> passed_over(qsizetype index) const;

    // Everything to install, each after what it requires.
    QList<Install> installs() const;

private:
    struct Node {
        ComponentUpdate update;
        bool skipped = false;
        bool active = false;
        bool forced = false;
        bool blocked = false;
        qsizetype chosen = -1;
    };

    void resolve();
    bool installing(qsizetype index) const;
    QVersionNumber provided(const QString &id) const;
    bool satisfied(const QString &id, const QVersionNumber &minimum) const;
    bool reachable(const QString &id, const QVersionNumber &minimum) const;
    qsizetype pick(qsizetype index) const;

    QList<Node> m_nodes;
    QMap<QString, QVersionNumber> m_installed;
    QMap<QString, QString> m_names;
};

} // namespace corv::update
