#include "update/dependency_graph.h"

#include "update/logging.h"

#include <QElapsedTimer>
#include <QSet>

#include <functional>

namespace corv::update {

DependencyGraph::DependencyGraph(QList<ComponentUpdate> updates,
                                 QMap<QString, QVersionNumber> installed,
                                 QMap<QString, QString> names)
    : m_installed(std::move(installed)), m_names(std::move(names))
{
    QElapsedTimer timer;
    timer.start();
    for (ComponentUpdate &update : updates) {
        m_names.insert(update.component.id, update.component.name);
        m_installed.insert(update.component.id, update.component.current);
        if (!update.candidates.isEmpty())
            m_nodes.append(Node{std::move(update)});
    }
    resolve();
    qCInfo(lc_update).noquote() << QStringLiteral(
                                       "Perf updater: prepared graph for %1 component(s) in %2ms")
                                       .arg(m_nodes.size())
                                       .arg(timer.elapsed());
}

qsizetype DependencyGraph::index_of(const QString &id) const
{
    for (qsizetype i = 0; i < m_nodes.size(); ++i) {
        if (m_nodes[i].update.component.id == id)
            return i;
    }
    return -1;
}

void DependencyGraph::set_skipped(qsizetype index, bool skipped)
{
    QElapsedTimer timer;
    timer.start();
    m_nodes[index].skipped = skipped;
    resolve();
    qCInfo(lc_update).noquote() << QStringLiteral(
                                       "Perf updater: updated graph for %1 component(s) in %2ms")
                                       .arg(m_nodes.size())
                                       .arg(timer.elapsed());
}

bool DependencyGraph::installing(qsizetype index) const
{
    const Node &node = m_nodes[index];
    return (node.active || node.forced) && !node.blocked && node.chosen >= 0;
}

QVersionNumber DependencyGraph::provided(const QString &id) const
{
    QVersionNumber best;
    for (qsizetype i = 0; i < m_nodes.size(); ++i) {
        if (!installing(i))
            continue;
        const QVersionNumber version =
            m_nodes[i].update.candidates[m_nodes[i].chosen].provides.value(id);
        if (!version.isNull() && (best.isNull() || compare_versions(version, best) > 0))
            best = version;
    }
    return best;
}

bool DependencyGraph::satisfied(const QString &id, const QVersionNumber &minimum) const
{
    const QVersionNumber current = m_installed.value(id);
    if (!current.isNull() && compare_versions(current, minimum) >= 0)
        return true;
    const QVersionNumber given = provided(id);
    return !given.isNull() && compare_versions(given, minimum) >= 0;
}

bool DependencyGraph::reachable(const QString &id, const QVersionNumber &minimum) const
{
    if (satisfied(id, minimum))
        return true;
    const qsizetype index = index_of(id);
    if (index < 0 || m_nodes[index].blocked)
        return false;
    for (const Entry &candidate : m_nodes[index].update.candidates) {
        if (compare_versions(candidate.version, minimum) >= 0)
            return true;
    }
    return false;
}

qsizetype DependencyGraph::pick(qsizetype index) const
{
    const QList<Entry> &candidates = m_nodes[index].update.candidates;
    for (qsizetype c = 0; c < candidates.size(); ++c) {
        bool possible = true;
        for (auto it = candidates[c].requirements.begin();
             possible && it != candidates[c].requirements.end(); ++it)
            possible = reachable(it.key(), it.value());
        if (possible)
            return c;
    }
    return -1;
}

void DependencyGraph::resolve()
{
    for (Node &node : m_nodes)
        node.blocked = false;
    // Each pass either settles or blocks one more component.
    for (qsizetype pass = 0; pass <= m_nodes.size(); ++pass) {
        for (Node &node : m_nodes) {
            node.active = !node.skipped && !node.blocked;
            node.forced = false;
            node.chosen = -1;
        }
        // Choose entries and pull in what they need until nothing changes.
        for (qsizetype round = 0; round <= m_nodes.size() + 1; ++round) {
            for (qsizetype i = 0; i < m_nodes.size(); ++i) {
                Node &node = m_nodes[i];
                node.chosen = (node.active || node.forced) && !node.blocked ? pick(i) : -1;
            }
            bool changed = false;
            for (qsizetype i = 0; i < m_nodes.size(); ++i) {
                if (!installing(i))
                    continue;
                const Entry &entry = m_nodes[i].update.candidates[m_nodes[i].chosen];
                for (auto it = entry.requirements.begin(); it != entry.requirements.end(); ++it) {
                    const qsizetype j = index_of(it.key());
                    if (j >= 0 && j != i && !m_nodes[j].active && !m_nodes[j].forced &&
                        !satisfied(it.key(), it.value())) {
                        m_nodes[j].forced = true;
                        changed = true;
                    }
                }
            }
            if (!changed)
                break;
        }
        // Block what is still not possible, then start over without it.
        bool blocked_more = false;
        for (qsizetype i = 0; i < m_nodes.size(); ++i) {
            Node &node = m_nodes[i];
            if (!(node.active || node.forced) || node.blocked)
                continue;
            bool possible = node.chosen >= 0;
            if (possible) {
                const Entry &entry = node.update.candidates[node.chosen];
                for (auto it = entry.requirements.begin();
                     possible && it != entry.requirements.end(); ++it) {
                    const qsizetype j = index_of(it.key());
                    possible =
                        satisfied(it.key(), it.value()) ||
                        (j >= 0 && installing(j) &&
                         compare_versions(m_nodes[j].update.candidates[m_nodes[j].chosen].version,
                                          it.value()) >= 0);
                }
            }
            if (!possible) {
                node.blocked = true;
                blocked_more = true;
            }
        }
        if (!blocked_more)
            return;
    }
}

DependencyGraph::State DependencyGraph::state(qsizetype index) const
{
    const Node &node = m_nodes[index];
    if (node.blocked)
        return State::Blocked;
    if (!installing(index))
        return State::Skipped;
    return node.active ? State::Install : State::Dependency;
}

const Entry &DependencyGraph::entry(qsizetype index) const
{
    const Node &node = m_nodes[index];
    return node.update.candidates[node.chosen >= 0 ? node.chosen : 0];
}

QList<DependencyGraph::Requirement> DependencyGraph::requirements(qsizetype index) const
{
    QList<Requirement> list;
    const Entry &chosen = entry(index);
    for (auto it = chosen.requirements.begin(); it != chosen.requirements.end(); ++it) {
        const qsizetype j = index_of(it.key());
        const bool met =
            satisfied(it.key(), it.value()) ||
            (j >= 0 && installing(j) && compare_versions(entry(j).version, it.value()) >= 0);
        list.append({it.key(), m_names.value(it.key(), it.key()), it.value(), met});
    }
    return list;
}

QList<qsizetype> DependencyGraph::dependents(qsizetype index) const
{
    QList<qsizetype> list;
    const QString id = m_nodes[index].update.component.id;
    for (qsizetype i = 0; i < m_nodes.size(); ++i) {
        if (i != index && installing(i) && entry(i).requirements.contains(id))
            list.append(i);
    }
    return list;
}

QList<qsizetype> DependencyGraph::installed_with(qsizetype index) const
{
    QList<qsizetype> list;
    if (!installing(index))
        return list;
    QList<qsizetype> pending{index};
    while (!pending.isEmpty()) {
        const qsizetype at = pending.takeFirst();
        const Entry &chosen = entry(at);
        for (auto it = chosen.requirements.begin(); it != chosen.requirements.end(); ++it) {
            const qsizetype j = index_of(it.key());
            if (j >= 0 && j != index && installing(j) && !list.contains(j) &&
                compare_versions(m_installed.value(it.key()), it.value()) < 0) {
                list.append(j);
                pending.append(j);
            }
        }
    }
    return list;
}

QList<Entry> DependencyGraph::passed_over(qsizetype index) const
{
    const Node &node = m_nodes[index];
    QList<Entry> list;
    for (qsizetype c = 0; c < node.update.candidates.size(); ++c) {
        if (!installing(index) || c > node.chosen)
            list.append(node.update.candidates[c]);
    }
    return list;
}

QList<DependencyGraph::Install> DependencyGraph::installs() const
{
    QList<Install> list;
    QSet<qsizetype> done;
    QSet<qsizetype> visiting;
    std::function<void(qsizetype)> visit = [&](qsizetype i) {
        if (done.contains(i) || visiting.contains(i))
            return; // a cycle: installed in list order
        visiting.insert(i);
        const Entry &chosen = entry(i);
        for (auto it = chosen.requirements.begin(); it != chosen.requirements.end(); ++it) {
            const qsizetype j = index_of(it.key());
            if (j >= 0 && installing(j))
                visit(j);
        }
        visiting.remove(i);
        done.insert(i);
        list.append({m_nodes[i].update, chosen});
    };
    for (qsizetype i = 0; i < m_nodes.size(); ++i) {
        if (installing(i))
            visit(i);
    }
    return list;
}

} // namespace corv::update
