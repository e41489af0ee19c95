#include "widgets/node_panel_view_model.h"

#include "widgets/node_type_text.h"

#include "cui/invalidate.h"
#include "cui/property_surface.h"
#include "engine/property_surface.h"
#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/node_registry.h"
#include "engine/project_runtime.h"
#include "locale/translate.h"
#include "model/project.h"

namespace corv::widgets {

NodePanelViewModel::NodePanelViewModel(QObject *parent) : QObject(parent)
{
}

NodePanelViewModel::~NodePanelViewModel()
{
    unwatch();
}

void NodePanelViewModel::set_context(const PanelContext &context)
{
    unwatch();
    m_context = context;
    m_node = QUuid();
    Q_EMIT node_changed(m_node);
    Q_EMIT title_changed(title());
    Q_EMIT surface_changed();
}

void NodePanelViewModel::set_node(const QUuid &node)
{
    const QUuid valid = m_context.project && m_context.project->find_node(node) ? node : QUuid();
    if (valid == m_node)
        return;
    unwatch();
    m_node = valid;
    watch();
    Q_EMIT node_changed(m_node);
    Q_EMIT title_changed(title());
    Q_EMIT surface_changed();
}

void NodePanelViewModel::watch()
{
    if (m_node.isNull())
        return;
    m_connections << connect(m_context.project, &model::Project::node_removed, this, [this](const QUuid &id) {
        if (id == m_node)
            set_node({});
    });
    if (model::Node *node = m_context.project->find_node(m_node)) {
        m_connections << connect(node, &model::Node::impl_id_changed, this, [this] {
            Q_EMIT title_changed(title());
            Q_EMIT surface_changed();
        });
    }
    if (engine::NodeManager *manager = m_context.runtime ? m_context.runtime->find_node_manager(m_node) : nullptr) {
        m_connections << connect(manager, &engine::NodeManager::instance_name_changed, this,
                                 [this] { Q_EMIT title_changed(title()); });
    }
}

void NodePanelViewModel::unwatch()
{
    for (const auto &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
}

bool NodePanelViewModel::is_loaded() const
{
    const model::Node *node = m_context.project ? m_context.project->find_node(m_node) : nullptr;
    if (!node)
        return false;
    if (engine::NodeManager *manager = m_context.runtime ? m_context.runtime->find_node_manager(m_node) : nullptr)
        return manager->definition() != nullptr;
    return m_context.registry && m_context.registry->find(node->impl_id());
}

QString NodePanelViewModel::title() const
{
    const model::Node *node = m_context.project ? m_context.project->find_node(m_node) : nullptr;
    if (!node)
        return locale::translate("NodePanel.Title.None");
    if (!is_loaded())
        return locale::translate("NodePanel.Title.NotLoaded.%1", node->impl_id());
    engine::NodeManager *manager = m_context.runtime ? m_context.runtime->find_node_manager(m_node) : nullptr;
    const engine::NodeDefinition *definition =
        manager ? manager->definition() : m_context.registry->find(node->impl_id());
    const engine::NodeInstance *instance = manager ? manager->instance() : nullptr;
    const QString name = instance ? instance->instance_name() : QString();
    const QString type_name = node_type_name(*definition);
    if (name.isEmpty() || name == definition->name || name == type_name)
        return locale::translate("NodePanel.Title.%1", type_name);
    return locale::translate("NodePanel.Title.%1.%2", name, type_name);
}

void NodePanelViewModel::retranslate()
{
    engine::NodeManager *manager = m_context.runtime && is_loaded() ? m_context.runtime->find_node_manager(m_node) : nullptr;
    if (engine::PropertySurface *surface = manager ? manager->surface() : nullptr)
        surface->invalidate(cui::Immediate);
    Q_EMIT title_changed(title());
}

QString NodePanelViewModel::not_loaded_text() const
{
    const model::Node *node = m_context.project ? m_context.project->find_node(m_node) : nullptr;
    return node ? locale::translate("ComponentNotLoaded.%1", node->impl_id()) : QString();
}

cui::Surface *NodePanelViewModel::surface() const
{
    if (!is_loaded() || !m_context.runtime)
        return nullptr;
    engine::NodeManager *manager = m_context.runtime->find_node_manager(m_node);
    auto *panel = manager ? dynamic_cast<cui::PropertySurface *>(manager->surface()) : nullptr;
    return panel ? panel->surface() : nullptr;
}

} // namespace corv::widgets
