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

// `owner` names the node or document in the warning about a value the file
// cannot carry.
void write_prop(QXmlStreamWriter &xml, const QString &key, const model::Value &value, const QString &owner)
{
    bool lossless = true;
    const QString key_text = xml_text(key, &lossless);
    if (value.is_none()) {
        xml.writeEmptyElement(QStringLiteral("prop"));
        xml.writeAttribute(QStringLiteral("key"), key_text);
    } else {
        xml.writeStartElement(QStringLiteral("prop"));
        xml.writeAttribute(QStringLiteral("key"), key_text);
        xml.writeAttribute(QStringLiteral("type"), model::type_name(value.type()));
        write_text(xml, value_text(value, &lossless));
        xml.writeEndElement();
    }
    if (!lossless)
        qCWarning(lc_persistence, "%s, key \"%s\": the value holds text XML can't carry; it was written without it",
                  qUtf8Printable(owner), qUtf8Printable(xml_text(key)));
}

// The properties of collections, in order; a key is written once, at the
// first collection that lists it. A node's keys are shortened by its impl_id;
// without one (preferences) they are written whole.
void write_props(QXmlStreamWriter &xml, std::initializer_list<const model::PropertyCollection *> collections,
                 const QString *impl_id, const QString &owner)
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
            write_prop(xml, impl_id ? short_key(key, *impl_id) : key, property ? property->value() : model::Value(),
                       owner);
        }
    }
}

// A name attribute (a rack's name, a node's type id) without what XML can't
// carry; a lone surrogate would otherwise break the whole document.
void write_name_attribute(QXmlStreamWriter &xml, const QString &attribute, const QString &text,
                          const QString &owner_kind, const QUuid &owner)
{
    bool lossless = true;
    xml.writeAttribute(attribute, xml_text(text, &lossless));
    if (!lossless)
        qCWarning(lc_persistence, "%s %s, attribute \"%s\": the text holds characters XML can't carry; it was written "
                  "without them",
                  qUtf8Printable(owner_kind), qUtf8Printable(owner.toString()), qUtf8Printable(attribute));
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
        write_name_attribute(xml, QStringLiteral("component"), node->impl_id(), QStringLiteral("Node"), id);
        const model::PropertyCollection *second = secondary ? secondary(id) : nullptr;
        write_props(xml, {second, &node->properties()}, &node->impl_id(),
                    QStringLiteral("Node %1").arg(id.toString()));
        for (const QUuid &child : node->children()->ids()) {
            write_reference(xml, child);
            queue.enqueue(child);
        }
        xml.writeEndElement();
    }
}

WriteResult write_document(bool indented, const std::function<void(QXmlStreamWriter &)> &body)
{
    WriteResult result;
    QXmlStreamWriter xml(&result.document);
    xml.setAutoFormatting(indented);
    xml.writeStartDocument();
    body(xml);
    xml.writeEndDocument();
    if (xml.hasError()) {
        result.document.clear();
        result.error = QStringLiteral("the XML writer failed");
    }
    return result;
}

void write_preferences_document(QXmlStreamWriter &xml, const model::PropertyCollection &primary,
                                const model::PropertyCollection *secondary)
{
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("preferences"));
    xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1"));
    write_props(xml, {&primary, secondary}, nullptr, QStringLiteral("Preferences"));
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
        write_name_attribute(xml, QStringLiteral("name"), rack->name(), QStringLiteral("Rack"), rack_id);
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

WriteResult write_project(const model::Project &project, const SecondaryCollections &secondary)
{
    return write_document(true, [&](QXmlStreamWriter &xml) {
        xml.writeStartElement(QStringLiteral("project"));
        xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1"));
        write_project_content(xml, project, secondary);
        xml.writeEndElement();
    });
}

WriteResult write_racks_clipboard(const model::Project &project, const QList<QUuid> &racks)
{
    return write_document(false, [&](QXmlStreamWriter &xml) {
        xml.writeStartElement(QStringLiteral("racks"));
        write_racks_content(xml, project, racks);
        xml.writeEndElement();
    });
}

WriteResult write_nodes_clipboard(const model::Project &project, const QList<QUuid> &top_nodes,
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
                            const model::PropertyCollection *secondary, QString *error)
{
    const auto failed = [&](const QString &reason) {
        qCWarning(lc_persistence, "Can't write preferences to %s: %s", qUtf8Printable(path), qUtf8Printable(reason));
        if (error)
            *error = reason;
        return false;
    };
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return failed(file.errorString());
    QXmlStreamWriter xml(&file);
    write_preferences_document(xml, primary, secondary);
    // The writer stops at the first failed write; the file's error says why
    // (a full disk, for one).
    if (!file.flush() || file.error() != QFileDevice::NoError)
        return failed(file.errorString());
    if (xml.hasError())
        return failed(QStringLiteral("the XML writer failed"));
    file.close();
    if (file.error() != QFileDevice::NoError)
        return failed(file.errorString());
    return true;
}

} // namespace corv::engine
