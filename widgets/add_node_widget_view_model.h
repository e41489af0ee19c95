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
    // its category, its description or its id. Matches are ranked: a name
    // that is or begins with the word, then a word of the name that begins
    // with it, then the rest of the name, the category, the description and
    // the id; among equals, sources (types that start events) come first and
    // actions last.
    void set_search(const QString &search);
    const QString &search() const { return m_search; }

    // The matching types by category. Without a search: categories and types
    // by name; with one, best matches first (a category where its best match is).
    const QList<Category> &categories() const { return m_categories; }
    // A type's name and description as shown now (in the current language
    // for the built-in types).
    static QString name_of(const engine::NodeDefinition *type);
    static QString description_of(const engine::NodeDefinition *type);
    // Fetches the texts again after a change of language.
    void retranslate() { refresh(); }
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
