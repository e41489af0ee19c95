#pragma once

// A user's project in miniature for the node tests: the built-in node set
// registered through the built-in plugin's real load, node panels from the
// declarative UI (built without widgets), racks and nodes made in the model
// and run by a project runtime on the real event loop. A "test.probe" node
// records every event it sees (its "!label", the event's "id", the time)
// and passes it on.

#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "model/project.h"
#include "tests/project_edits.h"
#include "sdk/plugin_list.h"

#include <QElapsedTimer>
#include <QList>
#include <QString>
#include <QUuid>

#include <memory>
#include <utility>

namespace engine = corv::engine;
namespace model = corv::model;

struct Hit {
    QString at;     // the probe's label
    QByteArray id;  // the event's "id"
    qint64 ms;      // on the rig's clock
    QByteArray keys; // every "key=value" of the event, joined by ";"
};

using corv::test::Settings;

// A string setting.
inline model::Value text(const char *s)
{
    return model::Value::string(s);
}

class Rig
{
public:
    Rig();
    ~Rig();

    QUuid add_rack(const QString &name) { return corv::test::add_rack(project, name); }
    // Under a rack or node, at the end.
    QUuid add_node(const QUuid &parent, const char *type, const Settings &settings = {})
    {
        return corv::test::add_node(project, parent, QString::fromUtf8(type), settings);
    }
    QUuid add_probe(const QUuid &parent, const QString &label);
    // Reads a project document into the (still closed) project.
    bool read(const QByteArray &document);
    QByteArray write() const;
    void open();

    // A setting changed after opening, as an edit would; the panel rebuilds
    // on the next turn of the event loop.
    void set(const QUuid &node, const QString &key, const model::Value &value);
    model::Value get(const QUuid &node, const QString &key) const;
    // Clicks the nth button of the node's panel.
    void click(const QUuid &node, int nth = 0);
    QString name(const QUuid &node) const;
    quint32 decoration(const QUuid &node) const;

    // Posts an event {"id": id} into a rack, as a source would.
    void post(const QUuid &rack, const QByteArray &id);
    // Posts an event of these keys and values, in this order.
    void post(const QUuid &rack, const QList<std::pair<QByteArray, QByteArray>> &keys);
    // The texts of the labels of the node's panel, in declaration order.
    QStringList labels(const QUuid &node) const;
    // Lets the event loop run `count` turns, or for `ms` milliseconds.
    static void turns(int count);
    static void wait(int ms);

    qint64 now() const { return m_clock.elapsed(); }
    // The ids a probe saw, in order; the hits of one probe.
    QList<QByteArray> seen(const QString &probe) const;
    QList<Hit> hits_at(const QString &probe) const;
    const QList<Hit> &hits() const;

    engine::NodeRegistry registry;
    model::Project project;
    std::unique_ptr<engine::ProjectRuntime> runtime;

private:
    engine::PluginList m_plugins;
    engine::PluginIdentity m_probe_plugin;
    QElapsedTimer m_clock;
};

// Fails the current test on any warning.
void fail_on_warnings();
