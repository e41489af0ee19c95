#include "persistence/writer.h"

#include "model/project.h"
#include "persistence/logging.h"
#include "persistence/value_text.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QQueue>
#include <QSet>
#include <QXmlStreamWriter>

#include <algorithm>

namespace corv::engine {

namespace {

QString id_text(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces);
}

// The key as written for a node of type impl_id: the part after "impl_id."
// when the key lies in the type's namespace, otherwise the whole key.
QString short_key(const QString &full_key, const QString &impl_id)
{
    if (full_key.size() > impl_id.size() && full_key.startsWith(impl_id)
        && full_key.at(impl_id.size()) == u'.')
        return full_key.mid(impl_id.size() + 1);
    return full_key;
}

// Character data that survives a round trip: the XML reader turns a raw
// carriage return into a line feed, so it is written as a reference.
void write_text(QXmlStreamWriter &xml, const QString &text)
{
    qsizetype cr = text.indexOf(u'\r');
    if (cr < 0) {
        xml.writeCharacters(text);
        return;
    }
    qsizetype start = 0;
    for (; cr >= 0; cr = text.indexOf(u'\r', start)) {
        if (cr > start)
            xml.writeCharacters(text.mid(start, cr - start));
        xml.writeEntityReference(QStringLiteral("#13"));
        start = cr + 1;
    }
    if (start < text.size())
        xml.writeCharacters(text.mid(start));
}

void write_prop(QXmlStreamWriter &xml, const QString &key, const model::Value &value)
{
    if (value.is_none()) {
        xml.writeEmptyElement(QStringLiteral("prop"));
        xml.writeAttribute(QStringLiteral("key"), key);
        return;
    }
    xml.writeStartElement(QStringLiteral("prop"));
    xml.writeAttribute(QStringLiteral("key"), key);
    xml.writeAttribute(QStringLiteral("type"), model::type_name(value.type()));
    write_text(xml, value_text(value));
    xml.writeEndElement();
}

// The properties of collections, in order; a key is written once, at the
// first collection that lists it. A node's keys are shortened by its impl_id;
// without one (preferences) they are written whole.
void write_props(QXmlStreamWriter &xml, std::initializer_list<const model::PropertyCollection *> collections,
                 const QString *impl_id)
{
    // A key list holds each key once, so only a second collection needs the
    // record of what was written.
    const qsizetype count = std::count_if(collections.begin(), collections.end(),
                                          [](const model::PropertyCollection *c) { return c != nullptr; });
    QSet<QString> written;
    for (const model::PropertyCollection *collection : collections) {
        if (!collection)
            continue;
        for (const QString &key : collection->keys()) {
            if (count > 1) {
                if (written.contains(key))
                    continue;
                written.insert(key);
            }
            const model::Property *property = collection->find(key);
            write_prop(xml, impl_id ? short_key(key, *impl_id) : key, property ? property->value() : model::Value());
        }
    }
}

void write_reference(QXmlStreamWriter &xml, const QUuid &id)
{
    xml.writeTextElement(QStringLiteral("node"), id_text(id));
}

// Definitions of the queued nodes and of all their descendants, breadth-first.
void write_definitions(QXmlStreamWriter &xml, const model::Project &project, QQueue<QUuid> queue,
                       const SecondaryCollections &secondary)
{
    QSet<QUuid> written;
    while (!queue.isEmpty()) {
        const QUuid id = queue.dequeue();
        const model::Node *node = project.find_node(id);
        // A reference to a missing node is kept as it is; a node that is
        // referenced twice is defined once, so the file reads back.
        if (!node || written.contains(id))
            continue;
        written.insert(id);
        xml.writeStartElement(QStringLiteral("node"));
        xml.writeAttribute(QStringLiteral("id"), id_text(id));
        xml.writeAttribute(QStringLiteral("component"), node->impl_id());
        const model::PropertyCollection *second = secondary ? secondary(id) : nullptr;
        write_props(xml, {second, &node->properties()}, &node->impl_id());
        for (const QUuid &child : node->children()->ids()) {
            write_reference(xml, child);
            queue.enqueue(child);
        }
        xml.writeEndElement();
    }
}

QByteArray write_document(bool indented, const std::function<void(QXmlStreamWriter &)> &body)
{
    QByteArray bytes;
    QXmlStreamWriter xml(&bytes);
    xml.setAutoFormatting(indented);
    xml.writeStartDocument();
    body(xml);
    xml.writeEndDocument();
    return bytes;
}

void write_preferences_document(QXmlStreamWriter &xml, const model::PropertyCollection &primary,
                                const model::PropertyCollection *secondary)
{
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("preferences"));
    xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1"));
    write_props(xml, {&primary, secondary}, nullptr);
    xml.writeEndElement();
    xml.writeEndDocument();
}

} // namespace

void write_racks_content(QXmlStreamWriter &xml, const model::Project &project, const QList<QUuid> &racks,
                         const SecondaryCollections &secondary)
{
    QQueue<QUuid> queue;
    for (const QUuid &rack_id : racks) {
        const model::Rack *rack = project.find_rack(rack_id);
        if (!rack)
            continue;
        xml.writeStartElement(QStringLiteral("rack"));
        xml.writeAttribute(QStringLiteral("id"), id_text(rack_id));
        xml.writeAttribute(QStringLiteral("name"), rack->name());
        if (!rack->is_enabled())
            xml.writeAttribute(QStringLiteral("disabled"), QStringLiteral("disabled"));
        for (const QUuid &node : rack->top_level()->ids()) {
            write_reference(xml, node);
            queue.enqueue(node);
        }
        xml.writeEndElement();
    }
    write_definitions(xml, project, std::move(queue), secondary);
}

void write_project_content(QXmlStreamWriter &xml, const model::Project &project,
                           const SecondaryCollections &secondary)
{
    write_racks_content(xml, project, project.profile()->ids(), secondary);
}

QByteArray write_project(const model::Project &project, const SecondaryCollections &secondary)
{
    return write_document(true, [&](QXmlStreamWriter &xml) {
        xml.writeStartElement(QStringLiteral("project"));
        xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1"));
        write_project_content(xml, project, secondary);
        xml.writeEndElement();
    });
}

QByteArray write_racks_clipboard(const model::Project &project, const QList<QUuid> &racks)
{
    return write_document(false, [&](QXmlStreamWriter &xml) {
        xml.writeStartElement(QStringLiteral("racks"));
        write_racks_content(xml, project, racks);
        xml.writeEndElement();
    });
}

QByteArray write_nodes_clipboard(const model::Project &project, const QList<QUuid> &top_nodes,
                                 const SecondaryCollections &secondary)
{
    return write_document(false, [&](QXmlStreamWriter &xml) {
        xml.writeStartElement(QStringLiteral("nodes"));
        xml.writeStartElement(QStringLiteral("definitions"));
        QQueue<QUuid> queue;
        for (const QUuid &id : top_nodes)
            queue.enqueue(id);
        write_definitions(xml, project, std::move(queue), secondary);
        xml.writeEndElement();
        for (const QUuid &id : top_nodes)
            write_reference(xml, id);
        xml.writeEndElement();
    });
}

QByteArray write_preferences(const model::PropertyCollection &primary, const model::PropertyCollection *secondary)
{
    QByteArray bytes;
    QXmlStreamWriter xml(&bytes);
    write_preferences_document(xml, primary, secondary);
    return bytes;
}

bool write_preferences_file(const QString &path, const model::PropertyCollection &primary,
                            const model::PropertyCollection *secondary)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qCWarning(lc_persistence, "Can't write preferences to %s: %s", qUtf8Printable(path),
                  qUtf8Printable(file.errorString()));
        return false;
    }
    QXmlStreamWriter xml(&file);
    write_preferences_document(xml, primary, secondary);
    return !xml.hasError();
}

} // namespace corv::engine
