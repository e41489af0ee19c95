#include "persistence/reader.h"

#include "model/project.h"
#include "persistence/logging.h"
#include "persistence/value_text.h"

#include <QXmlStreamReader>

#include <memory>

namespace corv::engine {

namespace {

constexpr int kOldestVersion = 1;
constexpr int kNewestVersion = 1;

const QString kRack = QStringLiteral("rack");
const QString kNode = QStringLiteral("node");
const QString kProp = QStringLiteral("prop");
const QString kDefinitions = QStringLiteral("definitions");

QString missing_attribute(const QString &element, const QString &attribute)
{
    return QStringLiteral("attribute <%1 %2> is missing").arg(element, attribute);
}

QString invalid_attribute(const QString &element, const QString &attribute)
{
    return QStringLiteral("attribute <%1 %2> has an invalid value").arg(element, attribute);
}

QString invalid_body(const QString &element)
{
    return QStringLiteral("<%1> has an invalid body").arg(element);
}

QString expected(const QString &wanted, QStringView got)
{
    return QStringLiteral("expected <%1>, got <%2>").arg(wanted, got);
}

QString expected(const QString &first, const QString &second, QStringView got)
{
    return QStringLiteral("expected <%1> or <%2>, got <%3>").arg(first, second, got);
}

// One pass over one document. Every method that can fail returns false after
// the failure was recorded and logged; the caller then stops at once.
class DocumentReader
{
public:
    DocumentReader(const QByteArray &document, const IdTranslator &translator)
        : m_xml(document), m_translator(translator)
    {
    }

    ReadResult result() const { return m_result; }

    bool read_project_document(model::Project &project, const QString &root, bool versioned)
    {
        if (!read_root(root) || (versioned && !read_version()))
            return false;
        return read_children([&](QStringView name) {
                   if (name == kRack)
                       return read_rack(project);
                   if (name == kNode)
                       return read_node_definition(project);
                   return parse_error(expected(kRack, kNode, name));
               }) &&
               finish_document();
    }

    bool read_nodes_document(model::Project &project, QList<QUuid> *top_nodes)
    {
        if (!read_root(QStringLiteral("nodes")))
            return false;
        return read_children([&](QStringView name) {
                   if (name == kDefinitions)
                       return read_definitions(project);
                   if (name != kNode)
                       return parse_error(expected(kDefinitions, kNode, name));
                   QUuid id;
                   if (!read_reference(id))
                       return false;
                   if (top_nodes)
                       top_nodes->append(id);
                   return true;
               }) &&
               finish_document();
    }

    bool read_preferences_document(model::PropertyCollection &collection)
    {
        if (!read_root(QStringLiteral("preferences")) || !read_version())
            return false;
        return read_children([&](QStringView name) {
                   if (name != kProp)
                       return parse_error(expected(kProp, name));
                   return read_prop(collection, QString());
               }) &&
               finish_document();
    }

private:
    enum class Next { Child, End, Failed };

    // Logs at the reader's current line, or at `at_line` when given.
    bool fail(ReadResult result, const QString &message, qint64 at_line = -1)
    {
        m_result = result;
        const qint64 line = at_line >= 0 ? at_line : m_xml.lineNumber();
        if (result == ReadResult::ParseError)
            qCWarning(lc_persistence, "(while parsing project; line %lld) %s", line, qUtf8Printable(message));
        else
            qCWarning(lc_persistence, "(while loading project; line %lld) %s", line, qUtf8Printable(message));
        return false;
    }

    bool parse_error(const QString &message) { return fail(ReadResult::ParseError, message); }

    // The XML reader's own error text, or "unexpected text" for a token that
    // is well-formed but not allowed where it stands.
    bool token_error()
    {
        if (m_xml.hasError())
            return parse_error(m_xml.errorString());
        return parse_error(QStringLiteral("unexpected text"));
    }

    bool read_root(const QString &root)
    {
        while (!m_xml.atEnd()) {
            const QXmlStreamReader::TokenType token = m_xml.readNext();
            if (token == QXmlStreamReader::StartElement) {
                if (m_xml.qualifiedName() != root)
                    return parse_error(
                        QStringLiteral("expected root <%1>, got <%2>").arg(root, m_xml.qualifiedName()));
                return true;
            }
            if (token == QXmlStreamReader::Invalid)
                break;
        }
        // A document that ends before any element has no root; other XML
        // errors are reported as the XML reader words them.
        if (m_xml.hasError() && m_xml.error() != QXmlStreamReader::PrematureEndOfDocumentError)
            return parse_error(m_xml.errorString());
        return parse_error(QStringLiteral("can't find root tag"));
    }

    bool read_version()
    {
        const QString root = m_xml.qualifiedName().toString();
        const QXmlStreamAttributes attributes = m_xml.attributes();
        if (!attributes.hasAttribute(QLatin1StringView("version")))
            return parse_error(missing_attribute(root, QStringLiteral("version")));
        bool ok = false;
        const int version = attributes.value(QLatin1StringView("version")).toInt(&ok, 10);
        if (!ok)
            return parse_error(invalid_attribute(root, QStringLiteral("version")));
        if (version < kOldestVersion)
            return fail(ReadResult::TooOld,
                        QStringLiteral("project format is too old: expected a version at or above %1, got version %2")
                            .arg(kOldestVersion)
                            .arg(version));
        if (version > kNewestVersion)
            return fail(ReadResult::TooNew,
                        QStringLiteral("project format is too new: expected a version at or below %1, got version %2")
                            .arg(kNewestVersion)
                            .arg(version));
        return true;
    }

    // Moves to the next child element of the current element, or to its end
    // tag. Blank text, comments and processing instructions between children
    // are skipped; other text is "unexpected text".
    Next next_child()
    {
        for (;;) {
            switch (m_xml.readNext()) {
            case QXmlStreamReader::StartElement:
                return Next::Child;
            case QXmlStreamReader::EndElement:
                return Next::End;
            case QXmlStreamReader::Characters:
                if (m_xml.isWhitespace())
                    continue;
                token_error();
                return Next::Failed;
            case QXmlStreamReader::Comment:
            case QXmlStreamReader::ProcessingInstruction:
                continue;
            default:
                token_error();
                return Next::Failed;
            }
        }
    }

    // Calls `child` with the name of each child element of the current
    // element, up to its end tag; stops at the first failure.
    template <typename ChildReader>
    bool read_children(ChildReader &&child)
    {
        for (;;) {
            switch (next_child()) {
            case Next::Failed:
                return false;
            case Next::End:
                return true;
            case Next::Child:
                break;
            }
            if (!child(m_xml.qualifiedName()))
                return false;
        }
    }

    // The text of the current element up to its end tag; an element inside
    // it is "unexpected text".
    bool read_text(QString &text)
    {
        for (;;) {
            switch (m_xml.readNext()) {
            case QXmlStreamReader::Characters:
                text += m_xml.text();
                continue;
            case QXmlStreamReader::Comment:
            case QXmlStreamReader::ProcessingInstruction:
                continue;
            case QXmlStreamReader::EndElement:
                return true;
            default:
                return token_error();
            }
        }
    }

    // After the root's end tag only the end of the document may follow
    // (blanks, comments and processing instructions aside).
    bool finish_document()
    {
        for (;;) {
            switch (m_xml.readNext()) {
            case QXmlStreamReader::EndDocument:
                return true;
            case QXmlStreamReader::Characters:
                if (m_xml.isWhitespace())
                    continue;
                break;
            case QXmlStreamReader::Comment:
            case QXmlStreamReader::ProcessingInstruction:
                continue;
            default:
                break;
            }
            return parse_error(QStringLiteral("unexpected text"));
        }
    }

    bool read_rack(model::Project &project)
    {
        // A duplicate is reported where its definition starts.
        const qint64 start_line = m_xml.lineNumber();
        const QXmlStreamAttributes attributes = m_xml.attributes();
        QUuid id = QUuid::fromString(attributes.value(QLatin1StringView("id")));
        if (id.isNull())
            return parse_error(invalid_attribute(kRack, QStringLiteral("id")));
        id = m_translator.rack(id);

        auto rack = std::make_unique<model::Rack>();
        if (!attributes.hasAttribute(QLatin1StringView("name")))
            return parse_error(missing_attribute(kRack, QStringLiteral("name")));
        rack->set_name(attributes.value(QLatin1StringView("name")).toString());
        rack->set_enabled(attributes.value(QLatin1StringView("disabled")).isEmpty());

        model::Children *top_level = rack->top_level();
        const bool read = read_children([&](QStringView name) {
            if (name != kNode)
                return parse_error(expected(kNode, name));
            QUuid child;
            if (!read_reference(child))
                return false;
            top_level->insert(top_level->count(), child);
            return true;
        });
        if (!read)
            return false;

        if (project.find_rack(id))
            return fail(ReadResult::LoadError,
                        QStringLiteral("a rack with the id %1 already exists").arg(id.toString()), start_line);
        project.add_rack(id, std::move(rack));
        project.profile()->insert(project.profile()->count(), id);
        return true;
    }

    bool read_definitions(model::Project &project)
    {
        return read_children([&](QStringView name) {
            if (name != kNode)
                return parse_error(expected(kNode, name));
            return read_node_definition(project);
        });
    }

    bool read_node_definition(model::Project &project)
    {
        const qint64 start_line = m_xml.lineNumber();
        const QXmlStreamAttributes attributes = m_xml.attributes();
        QUuid id = QUuid::fromString(attributes.value(QLatin1StringView("id")));
        if (id.isNull())
            return parse_error(invalid_attribute(kNode, QStringLiteral("id")));
        id = m_translator.node(id);

        auto node = std::make_unique<model::Node>();
        if (!attributes.hasAttribute(QLatin1StringView("component")))
            return parse_error(missing_attribute(kNode, QStringLiteral("component")));
        // The type id first: the keys of the properties depend on it.
        node->set_impl_id(attributes.value(QLatin1StringView("component")).toString());
        const QString prefix = node->key_prefix();

        model::Children *children = node->children();
        const bool read = read_children([&](QStringView name) {
            if (name == kProp)
                return read_prop(node->properties(), prefix);
            if (name != kNode)
                return parse_error(expected(kProp, kNode, name));
            QUuid child;
            if (!read_reference(child))
                return false;
            children->insert(children->count(), child);
            return true;
        });
        if (!read)
            return false;

        if (project.find_node(id))
            return fail(ReadResult::LoadError,
                        QStringLiteral("a node with the id %1 already exists").arg(id.toString()), start_line);
        project.add_node(id, std::move(node));
        return true;
    }

    // A `node` reference: its text is the id of a definition.
    bool read_reference(QUuid &id)
    {
        QString text;
        if (!read_text(text))
            return false;
        id = QUuid::fromString(QStringView(text).trimmed());
        if (id.isNull())
            return parse_error(invalid_body(kNode));
        id = m_translator.node(id);
        return true;
    }

    bool read_prop(model::PropertyCollection &collection, const QString &prefix)
    {
        const QXmlStreamAttributes attributes = m_xml.attributes();
        if (!attributes.hasAttribute(QLatin1StringView("key")))
            return parse_error(missing_attribute(kProp, QStringLiteral("key")));
        const QStringView key = attributes.value(QLatin1StringView("key"));
        model::Property *property =
            collection.set_key(key.startsWith(u'!') ? QStringView() : QStringView(prefix), key);

        const QStringView type_name = attributes.value(QLatin1StringView("type"));
        const model::ValueType type = model::type_from_name(type_name);
        if (type == model::ValueType::None && !type_name.isEmpty())
            return parse_error(invalid_attribute(kProp, QStringLiteral("type")));

        // A property without type has no text worth reading: whatever its
        // element holds, elements included, is skipped up to its end tag.
        if (type == model::ValueType::None) {
            m_xml.skipCurrentElement();
            if (m_xml.hasError())
                return token_error();
            property->set(model::Value());
            return true;
        }
        QString text;
        if (!read_text(text))
            return false;
        const std::optional<model::Value> value = parse_value(type, text);
        if (!value)
            return parse_error(invalid_body(kProp));
        property->set(*value);
        return true;
    }

    QXmlStreamReader m_xml;
    const IdTranslator &m_translator;
    ReadResult m_result = ReadResult::Ok;
};

} // namespace

ReadResult read_project(const QByteArray &document, model::Project &project, const IdTranslator &translator)
{
    DocumentReader reader(document, translator);
    reader.read_project_document(project, QStringLiteral("project"), true);
    return reader.result();
}

ReadResult read_racks_clipboard(const QByteArray &document, model::Project &project,
                                const IdTranslator &translator)
{
    DocumentReader reader(document, translator);
    reader.read_project_document(project, QStringLiteral("racks"), false);
    return reader.result();
}

ReadResult read_nodes_clipboard(const QByteArray &document, model::Project &project,
                                const IdTranslator &translator, QList<QUuid> *top_nodes)
{
    DocumentReader reader(document, translator);
    reader.read_nodes_document(project, top_nodes);
    return reader.result();
}

ReadResult read_preferences(const QByteArray &document, model::PropertyCollection &collection,
                            const PreferencesLoadHook &after_load)
{
    const IdTranslator identity;
    DocumentReader reader(document, identity);
    if (reader.read_preferences_document(collection) && after_load)
        after_load(collection);
    return reader.result();
}

} // namespace corv::engine
