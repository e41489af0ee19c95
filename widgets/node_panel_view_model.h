#pragma once

#include "widgets/racks_panel_view_model.h"

#include <QMetaObject>
#include <QObject>
#include <QUuid>

namespace corv::cui {
class Surface;
}

namespace corv::widgets {

// The node shown in the node panel: its title and its property surface.
class NodePanelViewModel : public QObject
{
    Q_OBJECT
public:
    explicit NodePanelViewModel(QObject *parent = nullptr);
    ~NodePanelViewModel() override;

    void set_context(const PanelContext &context);
    const PanelContext &context() const { return m_context; }

    // Shows a node of the project (null: none).
    void set_node(const QUuid &node);
    const QUuid &node() const { return m_node; }

    // Whether the node's type is loaded (false with no node).
    bool is_loaded() const;
    // "NodePanel.Title.%1" (the name), "NodePanel.Title.%1.%2" (the name and
    // the type's name, when they differ), "NodePanel.Title.NotLoaded.%1" (the
    // type id) or "NodePanel.Title.None".
    QString title() const;
    // After a change of language: the title again and the surface rebuilt.
    void retranslate();
    // The body of a node whose type is not loaded: "ComponentNotLoaded.%1".
    QString not_loaded_text() const;
    // The node's property surface; null with no node, for a node whose type
    // is not loaded, and without a runtime.
    cui::Surface *surface() const;

Q_SIGNALS:
    void node_changed(const QUuid &node);
    void title_changed(const QString &title);
    // The surface to show is another one (or none).
    void surface_changed();

private:
    void watch();
    void unwatch();

    PanelContext m_context;
    QUuid m_node;
    QList<QMetaObject::Connection> m_connections;
};

} // namespace corv::widgets
