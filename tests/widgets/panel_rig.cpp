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
