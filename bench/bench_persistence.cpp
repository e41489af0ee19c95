// Reading and writing a 10,000-node, 100-rack project, each against a bare
// QXmlStreamReader / QXmlStreamWriter pass over the same document, so the
// figures can be read as ratios on any machine.
#include "bench/bench_support.h"
#include "model/project.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cstdio>
#include <functional>

using namespace corv;

using corv::bench::bare_read;
using corv::bench::best_ms;

namespace {

// Racks of top-level nodes with four children each, every node carrying a
// few properties of the kinds the built-in nodes use.
void fill(model::Project &project, int racks, int nodes_per_rack)
{
    for (int r = 0; r < racks; ++r) {
        const QUuid rack_id = QUuid::createUuid();
        auto rack = std::make_unique<model::Rack>();
        rack->set_name(QStringLiteral("Rack %1").arg(r + 1));
        model::Children *top = rack->top_level();
        project.add_rack(rack_id, std::move(rack));
        project.profile()->insert(project.profile()->count(), rack_id);
        model::Children *children = top;
        for (int n = 0; n < nodes_per_rack; ++n) {
            const QUuid id = QUuid::createUuid();
            auto node = std::make_unique<model::Node>();
            node->set_impl_id(QStringLiteral("io.marrowfield.delay"));
            const model::StoreView store(&node->properties(), node->key_prefix());
            store.set(QStringLiteral("!delay"), model::Value::floating(1.5 + n));
            store.set(QStringLiteral("!name"), model::Value::string("node " + QByteArray::number(n)));
            store.set(QStringLiteral("count"), model::Value::integer(n));
            model::Children *own = node->children();
            project.add_node(id, std::move(node));
            if (n % 5 == 0) {
                top->insert(top->count(), id);
                children = own;
            } else {
                children->insert(children->count(), id);
            }
        }
    }
}

// The document's elements, attributes and texts, held in memory so that a
// bare writer can write the same elements without parsing anything.
struct Token {
    QXmlStreamReader::TokenType type;
    QString name;
    QXmlStreamAttributes attributes;
    QString text;
};

QList<Token> tokens_of(const QByteArray &document)
{
    QList<Token> tokens;
    QXmlStreamReader xml(document);
    while (!xml.atEnd()) {
        const QXmlStreamReader::TokenType type = xml.readNext();
        if (type == QXmlStreamReader::StartElement)
            tokens.append({type, xml.qualifiedName().toString(), xml.attributes(), {}});
        else if (type == QXmlStreamReader::EndElement)
            tokens.append({type, {}, {}, {}});
        else if (type == QXmlStreamReader::Characters && !xml.isWhitespace())
            tokens.append({type, {}, {}, xml.text().toString()});
    }
    return tokens;
}

QByteArray bare_write(const QList<Token> &tokens)
{
    QByteArray out;
    QXmlStreamWriter writer(&out);
    writer.setAutoFormatting(true);
    writer.writeStartDocument();
    for (const Token &token : tokens) {
        if (token.type == QXmlStreamReader::StartElement) {
            writer.writeStartElement(token.name);
            writer.writeAttributes(token.attributes);
        } else if (token.type == QXmlStreamReader::EndElement) {
            writer.writeEndElement();
        } else {
            writer.writeCharacters(token.text);
        }
    }
    writer.writeEndDocument();
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.*.debug=false"));
    constexpr int rounds = 5;

    model::Project source;
    fill(source, 100, 100);
    const QByteArray document = engine::write_project(source).document;
    std::printf("project_bytes: %lld B\n", static_cast<long long>(document.size()));

    const QList<Token> tokens = tokens_of(document);
    const double bare_read_ms = best_ms(rounds, [&] { bare_read(document); });
    const double bare_write_ms = best_ms(rounds, [&] { bare_write(tokens); });

    const double read_ms = best_ms(rounds, [&] {
        model::Project project;
        if (engine::read_project(document, project) != engine::ReadResult::Ok)
            std::fprintf(stderr, "the generated project did not read back\n");
    });
    const double write_ms = best_ms(rounds, [&] { (void)engine::write_project(source); });

    std::printf("bare_read: %.1f ms\n", bare_read_ms);
    std::printf("project_read: %.1f ms\n", read_ms);
    std::printf("read_ratio: %.2f x\n", read_ms / bare_read_ms);
    std::printf("bare_write: %.1f ms\n", bare_write_ms);
    std::printf("project_write: %.1f ms\n", write_ms);
    std::printf("write_ratio: %.2f x\n", write_ms / bare_write_ms);
    return 0;
}
