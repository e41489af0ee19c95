#include "panel_rig.h"

#include "app/builtin_plugin.h"
#include "cui/property_surface.h"
#include "locale/locale_list.h"
#include "locale/translate.h"
#include "model/property.h"

#include <QLoggingCategory>
#include <QStandardPaths>

using namespace corv;

PanelRig::PanelRig(bool keep_stored_language)
{
    QStandardPaths::setTestModeEnabled(true);
    QLoggingCategory::setFilterRules(QStringLiteral("corv.sdk.debug=false\ncorv.sdk.info=false\n"
                                                    "corv.engine.info=false\ncorv.persistence.debug=false"));
    locale::set_application_dir(QStringLiteral(CORV_TEST_RUNTIME_DIR));
    install_builtin_nodes();
    m_plugins.add_builtin(builtin_plugin_entry_points(), QStringLiteral(CORV_TEST_RUNTIME_DIR));
    m_plugins.initialize(registry);
    if (!keep_stored_language)
        locale::apply_language_preference(locale::default_language_position());
}

PanelRig::~PanelRig()
{
    runtime.reset();
}

QUuid PanelRig::add_rack(const QString &name)
{
    const QUuid id = QUuid::createUuid();
    auto rack = std::make_unique<model::Rack>();
    rack->set_name(name);
    project.add_rack(id, std::move(rack));
    project.profile()->insert(project.profile()->count(), id);
    return id;
}

QUuid PanelRig::add_node(const QUuid &parent, const QString &type, const QString &name)
{
    const QUuid id = QUuid::createUuid();
    auto node = std::make_unique<model::Node>();
    node->set_impl_id(type);
    if (!name.isEmpty())
        model::StoreView(&node->properties(), node->key_prefix())
            .set(QStringLiteral("!name"), model::Value::string(name.toUtf8()));
    project.add_node(id, std::move(node));
    model::Rack *rack = project.find_rack(parent);
    model::Children *list = rack ? rack->top_level() : project.find_node(parent)->children();
    list->insert(list->count(), id);
    return id;
}

void PanelRig::open()
{
    runtime = std::make_unique<engine::ProjectRuntime>(project, registry);
    cui::install_node_surfaces(*runtime, &commands);
    runtime->open();
}

widgets::PanelContext PanelRig::context()
{
    return {&project, &commands, runtime.get(), &registry};
}

QString PanelRig::tree(const QUuid &rack) const
{
    std::function<QString(const model::Children *)> list = [&](const model::Children *children) {
        QStringList parts;
        for (const QUuid &id : children->ids()) {
            const model::Node *node = project.find_node(id);
            QString part = node->impl_id().section(u'.', -1);
            if (node->children()->count())
                part += u'[' + list(node->children()) + u']';
            parts << part;
        }
        return parts.join(u' ');
    };
    return list(project.find_rack(rack)->top_level());
}

QString PanelRig::racks() const
{
    QStringList parts;
    for (const QUuid &id : project.profile()->ids()) {
        const model::Rack *rack = project.find_rack(id);
        parts << rack->name() + (rack->is_enabled() ? QString() : QStringLiteral("-"));
    }
    return parts.join(u',');
}
