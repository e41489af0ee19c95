#pragma once

#include <QList>
#include <QObject>
#include <QString>

namespace corv::engine {
class NodeRegistry;
struct NodeDefinition;
} // namespace corv::engine

namespace corv::widgets {

// The node types offered for adding, grouped by category and narrowed by a
// search over names, categories and ids.
class AddNodeWidgetViewModel : public QObject
{
    Q_OBJECT
public:
    struct Category {
        QString name;
        QList<const engine::NodeDefinition *> types;
    };

    explicit AddNodeWidgetViewModel(QObject *parent = nullptr);
    ~AddNodeWidgetViewModel() override;

    void set_registry(const engine::NodeRegistry *registry);

    // Every word of the search must occur (ignoring case) in the type's name,
    // its category or its id.
    void set_search(const QString &search);
    const QString &search() const { return m_search; }

    // The matching types: categories by name, types by name within each.
    const QList<Category> &categories() const { return m_categories; }
    qsizetype match_count() const;
    // The first match, or null.
    const engine::NodeDefinition *first_match() const;

Q_SIGNALS:
    void categories_changed();

private:
    void refresh();

    const engine::NodeRegistry *m_registry = nullptr;
    QString m_search;
    QList<Category> m_categories;
};

} // namespace corv::widgets
