#pragma once

#include <QByteArray>
#include <QHash>
#include <QUuid>

namespace corv::model {
class Project;
}

namespace corv::engine {

// Maps the ids read from a document to the ids the reader uses. Every rack id
// and every node id, in definitions and in references alike, passes through
// it, so a whole document is translated consistently. Ids without an entry
// pass unchanged; the default translator is the identity (opening a project).
class IdTranslator
{
public:
    IdTranslator() = default;
    virtual ~IdTranslator();
    IdTranslator(const IdTranslator &) = default;
    IdTranslator &operator=(const IdTranslator &) = default;

    static IdTranslator identity() { return IdTranslator(); }

    // The translator of a paste into target, built in a first pass over the
    // document: each rack and node defined in it whose id the target already
    // uses gets a fresh random id, unused in the target and in the document.
    // A document that does not parse gives whatever was found before the error;
    // the reading pass reports the error itself.
    static IdTranslator for_paste(const QByteArray &document, const model::Project &target);

    virtual QUuid rack(const QUuid &id) const { return m_racks.value(id, id); }
    virtual QUuid node(const QUuid &id) const { return m_nodes.value(id, id); }

    void map_rack(const QUuid &from, const QUuid &to) { m_racks.insert(from, to); }
    void map_node(const QUuid &from, const QUuid &to) { m_nodes.insert(from, to); }
    const QHash<QUuid, QUuid> &rack_table() const { return m_racks; }
    const QHash<QUuid, QUuid> &node_table() const { return m_nodes; }

private:
    QHash<QUuid, QUuid> m_racks;
    QHash<QUuid, QUuid> m_nodes;
};

} // namespace corv::engine
