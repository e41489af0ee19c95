// Feeds arbitrary bytes to every XML reader. Besides crashes and sanitizer
// reports it checks what must hold for any document that reads:
//  - the writer's output reads back and is written again byte for byte;
//  - pasting the project's own racks and nodes into it (every id collides)
//    and undoing the paste leaves it as it was.
#include "model/project.h"
#include "persistence/command_manager.h"
#include "persistence/paste.h"
#include "persistence/reader.h"
#include "persistence/writer.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace corv;

namespace {

void silent(QtMsgType, const QMessageLogContext &, const QString &) {}

[[noreturn]] void broken(const char *what, const QByteArray &detail)
{
    std::fprintf(stderr, "invariant broken: %s\n%s\n", what, detail.constData());
    std::abort();
}

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

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler(silent);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));

    model::Project project;
    if (engine::read_project(bytes, project) == engine::ReadResult::Ok) {
        check_round_trip(project);
        check_paste_into_itself(project);
    }

    // The other roots, pasting into whatever was read above.
    model::Project target;
    engine::read_racks_clipboard(bytes, target, engine::IdTranslator::for_paste(bytes, project));
    QList<QUuid> top_nodes;
    engine::read_nodes_clipboard(bytes, target, engine::IdTranslator::for_paste(bytes, project), &top_nodes);
    model::PropertyCollection preferences;
    if (engine::read_preferences(bytes, preferences) == engine::ReadResult::Ok) {
        model::PropertyCollection again;
        if (engine::read_preferences(engine::write_preferences(preferences), again) != engine::ReadResult::Ok)
            broken("written preferences do not read", engine::write_preferences(preferences));
    }
    return 0;
}
