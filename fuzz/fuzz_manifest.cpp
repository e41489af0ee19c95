// Feeds arbitrary bytes to the update and plugin manifest readers. Besides
// crashes and sanitizer reports it checks what must hold for any manifest
// that reads:
//  - every download step carries a 64-digit hex sha256 and a size from 0 to
//    the package limit;
//  - a plugin's icon is kept only with a digest and a size within its limit;
//  - every step survives the round trip through "update.json"'s form;
//  - choosing candidates and building the dependency graph of its entries
//    (each entry's requirements pointing at the others) terminates and
//    installs only candidates.
#include "fuzz/fuzz_support.h"
#include "update/candidates.h"
#include "update/dependency_graph.h"
#include "update/manifest.h"

#include <QByteArray>
#include <QRegularExpression>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace corv::update;

using corv::fuzz::broken;

namespace {

void check_steps(const Manifest &manifest, const QByteArray &bytes)
{
    static const QRegularExpression hex(QStringLiteral("^[0-9a-f]{64}$"));
    for (const Entry &entry : manifest.entries) {
        if (entry.version.isNull())
            broken("an entry without a version was accepted", bytes);
        for (const QList<Step> &steps : entry.methods) {
            if (steps.isEmpty())
                broken("an empty method was accepted", bytes);
            for (const Step &step : steps) {
                if (step.kind == Step::Download &&
                    (!hex.match(QString::fromLatin1(step.sha256)).hasMatch() || step.size < 0 ||
                     step.size > kMaxPackageSize))
                    broken("a download without a digest was accepted", bytes);
                const std::optional<Step> again = Step::from_json(step.to_json());
                if (!again || again->kind != step.kind || again->value != step.value ||
                    again->destination != step.destination || again->sha256 != step.sha256 ||
                    again->size != step.size)
                    broken("a step does not survive its round trip", bytes);
                is_safe_relative_path(step.destination);
            }
        }
    }
}

void check_graph(const Manifest &manifest, const QByteArray &bytes)
{
    // One component per entry, named by the entry's position, so that
    // "requires" keys like "1" link the entries into a graph.
    QList<ComponentUpdate> updates;
    for (qsizetype i = 0; i < manifest.entries.size() && i < 16; ++i) {
        const Entry &entry = manifest.entries[i];
        const QString method = entry.methods.isEmpty() ? QString() : entry.methods.firstKey();
        Component component{QString::number(i), QString::number(i), QVersionNumber(0),
                            QUrl(QStringLiteral("https://example.invalid/m.json#") + method),
                            QString()};
        QList<Entry> candidates = choose_candidates(component, manifest, QVersionNumber());
        if (!candidates.isEmpty())
            updates.append({component, {}, candidates});
    }
    DependencyGraph graph(updates, {});
    for (qsizetype i = 0; i < graph.count(); ++i) {
        graph.requirements(i);
        graph.passed_over(i);
        graph.installed_with(i);
    }
    if (graph.count() > 0)
        graph.set_skipped(0, true);
    for (const DependencyGraph::Install &install : graph.installs()) {
        bool candidate = false;
        for (const Entry &entry : install.update.candidates)
            candidate = candidate || entry.version_text == install.entry.version_text;
        if (!candidate)
            broken("the graph installs something that is no candidate", bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    if (const std::optional<Manifest> manifest = read_manifest(bytes, QStringLiteral("Fuzz"))) {
        check_steps(*manifest, bytes);
        check_graph(*manifest, bytes);
    }
    if (const std::optional<PluginManifest> plugin = read_plugin_manifest(bytes)) {
        if (plugin->id.isEmpty() || plugin->id.contains(u'/') ||
            plugin->id.contains(QLatin1StringView("..")))
            broken("a plugin id that is no folder name was accepted", bytes);
        if (!plugin->icon_url.isEmpty() &&
            (plugin->icon_sha256.size() != 64 || plugin->icon_size < 0 ||
             plugin->icon_size > kMaxIconSize))
            broken("an icon without a digest or past its limit was kept", bytes);
        check_steps(plugin->package, bytes);
    }
    return 0;
}
