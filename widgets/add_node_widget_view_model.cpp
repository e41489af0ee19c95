#include "widgets/add_node_widget_view_model.h"

#include "engine/node_registry.h"

#include <QMap>

#include <algorithm>

namespace corv::widgets {

AddNodeWidgetViewModel::AddNodeWidgetViewModel(QObject *parent) : QObject(parent)
{
}

AddNodeWidgetViewModel::~AddNodeWidgetViewModel() = default;

void AddNodeWidgetViewModel::set_registry(const engine::NodeRegistry *registry)
{
    m_registry = registry;
    refresh();
}

void AddNodeWidgetViewModel::set_search(const QString &search)
{
    if (search == m_search)
        return;
    m_search = search;
    refresh();
}

qsizetype AddNodeWidgetViewModel::match_count() const
{
    qsizetype n = 0;
    for (const Category &c : m_categories)
        n += c.types.size();
    return n;
}

const engine::NodeDefinition *AddNodeWidgetViewModel::first_match() const
{
    return m_categories.isEmpty() ? nullptr : m_categories.first().types.value(0);
}

void AddNodeWidgetViewModel::refresh()
{
    m_categories.clear();
    if (m_registry) {
        const QStringList words = m_search.split(u' ', Qt::SkipEmptyParts);
        QMap<QString, Category> by_key;
        for (const engine::NodeDefinition *d : m_registry->definitions()) {
            const bool match = std::all_of(words.cbegin(), words.cend(), [d](const QString &w) {
                return d->name.contains(w, Qt::CaseInsensitive) || d->category.contains(w, Qt::CaseInsensitive) ||
                       d->id.contains(w, Qt::CaseInsensitive);
            });
            if (!match)
                continue;
            Category &c = by_key[d->category.toCaseFolded()];
            c.name = d->category;
            c.types.append(d);
        }
        for (Category &c : by_key) {
            std::stable_sort(c.types.begin(), c.types.end(),
                             [](const engine::NodeDefinition *a, const engine::NodeDefinition *b) {
                                 return a->name.localeAwareCompare(b->name) < 0;
                             });
            m_categories.append(c);
        }
    }
    Q_EMIT categories_changed();
}

} // namespace corv::widgets
