// Feeds arbitrary bytes to every XML reader. Besides crashes and sanitizer
// reports it checks what must hold for any document that reads:
//  - the writer's output reads back and is written again byte for byte;
//  - pasting the project's own racks and nodes into it (every id collides)
//    and undoing the paste leaves it as it was;
//  - a project built straight from the bytes, with names, keys and values no
//    reader would produce (lone surrogates, control characters, bytes that
//    are not UTF-8), is written without failure, reads back and is written
//    again byte for byte;
//  - a racks or nodes clipboard and a preferences document that read are
//    written, read back and written again byte for byte;
//  - a document that does not read says why in a warning with its line.
#include "fuzz/fuzz_support.h"
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/paste.h"
#include "persistence/reader.h"
#include "persistence/value_text.h"
#include "persistence/writer.h"

#include <QByteArray>
#include <QSet>
#include <QStringList>
#include <QUuid>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace corv;

using corv::fuzz::broken;

namespace {

void check_round_trip(const model::Project &project)
{
    const QByteArray first = engine::write_project(project).document;
    model::Project again;
    if (engine::read_project(first, again) != engine::ReadResult::Ok)
        broken("written project does not read", first);
    const QByteArray second = engine::write_project(again).document;
    if (second != first)
        broken("write, read, write changed the bytes", first + "\n----\n" + second);
}

void check_paste_into_itself(model::Project &project)
{
    const QByteArray before = engine::write_project(project).document;
    engine::CommandManager manager;

    const QByteArray racks = engine::write_racks_clipboard(project, project.profile()->ids()).document;
    manager.execute(engine::paste_racks_command(racks, project, 0));

    if (project.profile()->count() > 0) {
        const QUuid rack = project.profile()->at(project.profile()->count() - 1);
        const QByteArray nodes = engine::write_nodes_clipboard(project, project.find_rack(rack)->top_level()->ids()).document;
        manager.execute(engine::paste_nodes_command(nodes, project, engine::NodePlace{rack, QUuid(), 0}));
    }

    while (manager.can_undo())
        manager.undo();
    const QByteArray after = engine::write_project(project).document;
    if (after != before)
        broken("undoing a paste did not restore the project", before + "\n----\n" + after);
}

// Takes the fuzzer's bytes apart into the parts of a model.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_pos >= m_size; }
    std::uint8_t byte() { return empty() ? 0 : m_data[m_pos++]; }
    QByteArray bytes()
    {
        QByteArray out;
        for (std::size_t n = byte() % 16; n > 0 && !empty(); --n)
            out.append(char(byte()));
        return out;
    }
    // UTF-16 units as they come, unpaired surrogates included.
    QString text()
    {
        QString out;
        for (std::size_t n = byte() % 8; n > 0 && !empty(); --n)
            out.append(QChar(char16_t(byte() << 8 | byte())));
        return out;
    }
    int integer()
    {
        std::uint32_t bits = 0;
        for (int i = 0; i < 4; ++i)
            bits = bits << 8 | byte();
        return int(bits);
    }
    double number()
    {
        std::uint64_t bits = 0;
        for (int i = 0; i < 8; ++i)
            bits = bits << 8 | byte();
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

private:
    const std::uint8_t *m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

model::Value value_from(Input &in)
{
    switch (in.byte() % 8) {
    case 0: return model::Value();
    case 1: return model::Value::boolean(in.byte() & 1);
    case 2: return model::Value::integer(in.integer());
    case 3: return model::Value::floating(in.number());
    case 4: return model::Value::vec3({in.number(), in.number(), in.number()});
    case 5: return model::Value::buffer(in.bytes());
    case 6: return model::Value::rack(QUuid(in.byte(), 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
    default: return model::Value::string(in.bytes());
    }
}

void check_model_values(const std::uint8_t *data, std::size_t size)
{
    Input in(data, size);
    model::Project project;
    model::Children *parent = nullptr;
    for (uint id = 1; !in.empty() && id < 64; ++id) {
        if (!parent || in.byte() % 4 == 0) {
            auto rack = std::make_unique<model::Rack>();
            rack->set_name(in.text());
            parent = rack->top_level();
            project.add_rack(QUuid(id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), std::move(rack));
            project.profile()->insert(project.profile()->count(), QUuid(id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
            continue;
        }
        auto node = std::make_unique<model::Node>();
        node->set_impl_id(in.text());
        // Full keys in the node's namespace; two keys the file would not
        // tell apart (the same key, or keys that differ only in what XML
        // can't carry) are one key.
        QSet<QString> written_keys;
        for (std::size_t n = in.byte() % 4; n > 0; --n) {
            const QString local = in.text();
            const QString key = local.startsWith(u'!') ? local : node->key_prefix() + local;
            if (written_keys.contains(engine::xml_text(key)))
                continue;
            written_keys.insert(engine::xml_text(key));
            node->properties().append_key(key);
            node->properties().find_or_create(key)->set(value_from(in));
        }
        model::Children *children = node->children();
        const QUuid node_id(id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2);
        project.add_node(node_id, std::move(node));
        parent->insert(parent->count(), node_id);
        if (in.byte() % 2)
            parent = children;
    }
    const engine::WriteResult written = engine::write_project(project);
    if (!written.ok())
        broken("a project of arbitrary values was not written", written.error.toUtf8());
    model::Project again;
    if (engine::read_project(written.document, again) != engine::ReadResult::Ok)
        broken("a written project of arbitrary values does not read", written.document);
    const QByteArray second = engine::write_project(again).document;
    if (second != written.document)
        broken("write, read, write of arbitrary values changed the bytes", written.document + "\n----\n" + second);
}

QStringList g_warnings;
void record(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtWarningMsg)
        g_warnings.append(message);
}

// A failed read logs where and why, as "(while parsing project; line 3) ...".
void check_reported(engine::ReadResult result, const QByteArray &bytes)
{
    if (result == engine::ReadResult::Ok)
        return;
    for (const QString &warning : std::as_const(g_warnings)) {
        if ((warning.contains(QLatin1StringView("(while parsing project; line ")) ||
             warning.contains(QLatin1StringView("(while loading project; line "))))
            return;
    }
    broken("a document that does not read gave no reason", bytes);
}

void check_clipboards(const QByteArray &bytes)
{
    model::Project racks;
    g_warnings.clear();
    const engine::ReadResult racks_result = engine::read_racks_clipboard(bytes, racks);
    check_reported(racks_result, bytes);
    if (racks_result == engine::ReadResult::Ok) {
        const QByteArray first = engine::write_racks_clipboard(racks, racks.profile()->ids()).document;
        model::Project again;
        if (engine::read_racks_clipboard(first, again) != engine::ReadResult::Ok)
            broken("a written racks clipboard does not read", first);
        if (engine::write_racks_clipboard(again, again.profile()->ids()).document != first)
            broken("write, read, write of a racks clipboard changed the bytes", first);
    }

    model::Project nodes;
    QList<QUuid> top_nodes;
    g_warnings.clear();
    const engine::ReadResult nodes_result = engine::read_nodes_clipboard(bytes, nodes, engine::IdTranslator(), &top_nodes);
    check_reported(nodes_result, bytes);
    if (nodes_result == engine::ReadResult::Ok) {
        const QByteArray first = engine::write_nodes_clipboard(nodes, top_nodes).document;
        model::Project again;
        QList<QUuid> again_top;
        if (engine::read_nodes_clipboard(first, again, engine::IdTranslator(), &again_top) != engine::ReadResult::Ok)
            broken("a written nodes clipboard does not read", first);
        if (engine::write_nodes_clipboard(again, again_top).document != first)
            broken("write, read, write of a nodes clipboard changed the bytes", first);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    check_model_values(data, size);

    qInstallMessageHandler(record);
    model::Project project;
    g_warnings.clear();
    const engine::ReadResult result = engine::read_project(bytes, project);
    check_reported(result, bytes);
    if (result == engine::ReadResult::Ok) {
        check_round_trip(project);
        check_paste_into_itself(project);
    }

    // The other roots, pasting into whatever was read above.
    model::Project target;
    engine::read_racks_clipboard(bytes, target, engine::IdTranslator::for_paste(bytes, project));
    QList<QUuid> top_nodes;
    engine::read_nodes_clipboard(bytes, target, engine::IdTranslator::for_paste(bytes, project), &top_nodes);
    check_clipboards(bytes);
    model::PropertyCollection preferences;
    g_warnings.clear();
    const engine::ReadResult preferences_result = engine::read_preferences(bytes, preferences);
    check_reported(preferences_result, bytes);
    if (preferences_result == engine::ReadResult::Ok) {
        const QByteArray first = engine::write_preferences(preferences);
        model::PropertyCollection again;
        if (engine::read_preferences(first, again) != engine::ReadResult::Ok)
            broken("written preferences do not read", first);
        if (engine::write_preferences(again) != first)
            broken("write, read, write of preferences changed the bytes", first);
    }
    g_warnings.clear();
    qInstallMessageHandler(corv::fuzz::silent);
    return 0;
}
