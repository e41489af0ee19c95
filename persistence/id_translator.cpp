#include "persistence/id_translator.h"

#include "model/project.h"

#include <QList>
#include <QSet>
#include <QXmlStreamReader>

namespace corv::engine {

IdTranslator::~IdTranslator() = default;

IdTranslator IdTranslator::for_paste(const QByteArray &document, const model::Project &target)
{
    // Definitions are the elements that carry an `id` attribute: `rack`
    // elements and `node` definitions (references carry their id as text).
    QList<QUuid> racks;
    QList<QUuid> nodes;
    QSet<QUuid> in_document;
    QXmlStreamReader xml(document);
    while (!xml.atEnd() && xml.readNext() != QXmlStreamReader::Invalid) {
        if (!xml.isStartElement())
            continue;
        const QXmlStreamAttributes attributes = xml.attributes();
        if (!attributes.hasAttribute(QLatin1StringView("id")))
            continue;
        const QUuid id = QUuid::fromString(attributes.value(QLatin1StringView("id")));
        if (id.isNull())
            continue;
        if (xml.name() == u"rack")
            racks.append(id);
        else if (xml.name() == u"node")
            nodes.append(id);
        else
            continue;
        in_document.insert(id);
    }

    const auto fresh = [&](auto taken_in_target) {
        QUuid id;
        do {
            id = QUuid::createUuid();
        } while (taken_in_target(id) || in_document.contains(id));
        in_document.insert(id);
        return id;
    };

    IdTranslator translator;
    for (const QUuid &id : std::as_const(racks)) {
        if (target.find_rack(id) && !translator.m_racks.contains(id))
            translator.map_rack(id, fresh([&](const QUuid &c) { return target.find_rack(c) != nullptr; }));
    }
    for (const QUuid &id : std::as_const(nodes)) {
        if (target.find_node(id) && !translator.m_nodes.contains(id))
            translator.map_node(id, fresh([&](const QUuid &c) { return target.find_node(c) != nullptr; }));
    }
    return translator;
}

} // namespace corv::engine
