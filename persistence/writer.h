#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUuid>

#include <functional>

class QXmlStreamWriter;

namespace corv::model {
class Project;
class PropertyCollection;
} // namespace corv::model

namespace corv::engine {

// The engine's second collection of a node, whose keys are written ahead of
// the node's own; null when the engine holds none for that node.
using SecondaryCollections = std::function<const model::PropertyCollection *(const QUuid &node_id)>;

// The outcome of writing a whole document. On failure `document` is empty
// and `error` says why (the XML writer's failure); a document is never
// returned that its reader would refuse. A value the format cannot carry
// (text that is not UTF-8, characters XML 1.0 does not allow) is not a
// failure: what can be carried is written, and one warning names the node or
// rack and the key.
struct WriteResult {
    QByteArray document;
    QString error;

    bool ok() const { return error.isEmpty(); }
};

// The content of a `project` element (or of a `racks` clipboard document):
// every rack of racks, in that order, with its top-level references, then the
// definitions of all nodes the racks reach, breadth-first across all racks.
// Nodes that no rack reaches are not written; each node is written once.
void write_racks_content(QXmlStreamWriter &xml, const model::Project &project, const QList<QUuid> &racks,
                         const SecondaryCollections &secondary = {});

// The content of a `project` element: all racks in profile order.
void write_project_content(QXmlStreamWriter &xml, const model::Project &project,
                           const SecondaryCollections &secondary = {});

// A whole project file: declaration, indented `project` version 1.
WriteResult write_project(const model::Project &project, const SecondaryCollections &secondary = {});

// The "application/x-corv-rack-list-xml" document of the given racks (not indented).
WriteResult write_racks_clipboard(const model::Project &project, const QList<QUuid> &racks);

// The "application/x-corv-node-list-xml" document of the given top nodes: a
// `definitions` element with them and all their descendants (breadth-first),
// then one reference per top node (not indented).
WriteResult write_nodes_clipboard(const model::Project &project, const QList<QUuid> &top_nodes,
                                 const SecondaryCollections &secondary = {});

// A whole preferences document: the primary collection in key-list order, then
// the keys of the secondary one that were not written yet. Keys are whole.
QByteArray write_preferences(const model::PropertyCollection &primary,
                             const model::PropertyCollection *secondary = nullptr);

// Writes that document straight into the file at path, creating its folder.
// When the file cannot be opened or written (a full disk), logs "Can't write
// preferences to %s: %s" with the system's reason, puts the reason into
// `error` when given and returns false; true when the whole document is in
// the file.
bool write_preferences_file(const QString &path, const model::PropertyCollection &primary,
                            const model::PropertyCollection *secondary = nullptr, QString *error = nullptr);

} // namespace corv::engine
