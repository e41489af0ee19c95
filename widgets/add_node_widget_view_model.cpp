#include "widgets/add_node_widget_view_model.h"

#include "engine/node_registry.h"

#include "widgets/node_type_text.h"

#include <QHash>

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

namespace {

// How well one search word matches a type; lower is better, -1 for no match.
// The name's beginning, then the beginning of one of its words, then
// anywhere in it, then the category, the description and the id.
int word_score(const QString &word, const QString &name, const QString &category,
               const QString &description, const QString &id)
{
    if (name.compare(word, Qt::CaseInsensitive) == 0)
        return 0;
    if (name.startsWith(word, Qt::CaseInsensitive))
        return 1;
    const qsizetype at = name.indexOf(word, 0, Qt::CaseInsensitive);
    if (at > 0)
        return name.at(at - 1).isLetterOrNumber() ? 3 : 2;
    if (category.contains(word, Qt::CaseInsensitive))
        return 4;
    if (description.contains(word, Qt::CaseInsensitive))
        return 5;
    if (id.contains(word, Qt::CaseInsensitive))
        return 6;
    return -1;
}

struct Match {
    const engine::NodeDefinition *type;
    QString name;
    QString category;
    int score;
    int rank;
};

} // namespace

QString AddNodeWidgetViewModel::name_of(const engine::NodeDefinition *type)
{
    return type ? node_type_name(*type) : QString();
}

QString AddNodeWidgetViewModel::description_of(const engine::NodeDefinition *type)
{
    return type ? node_type_description(*type) : QString();
}

void AddNodeWidgetViewModel::refresh()
{
    m_categories.clear();
    if (m_registry) {
        const QStringList words = m_search.split(u' ', Qt::SkipEmptyParts);
        QList<Match> matches;
        for (const engine::NodeDefinition *d : m_registry->definitions()) {
            Match match{d, node_type_name(*d), node_type_category(*d), 0, node_type_category_rank(*d)};
            const QString description = node_type_description(*d);
            for (const QString &word : words) {
                const int score = word_score(word, match.name, match.category, description, d->id);
                if (score < 0) {
                    match.score = -1;
                    break;
                }
                match.score += score;
            }
            if (match.score >= 0)
                matches.append(match);
        }
        // Without a search, categories by name; with one, the best matches
        // first, sources ahead of what acts on equal terms.
        std::stable_sort(matches.begin(), matches.end(), [&words](const Match &a, const Match &b) {
            if (!words.isEmpty() && a.score != b.score)
                return a.score < b.score;
            if (!words.isEmpty() && a.rank != b.rank)
                return a.rank < b.rank;
            if (words.isEmpty() && a.category.toCaseFolded() != b.category.toCaseFolded())
                return a.category.localeAwareCompare(b.category) < 0;
            return a.name.localeAwareCompare(b.name) < 0;
        });
        // Categories in the order of their best match.
        QHash<QString, qsizetype> position;
        for (const Match &match : std::as_const(matches)) {
            const QString key = match.category.toCaseFolded();
            auto it = position.find(key);
            if (it == position.end()) {
                it = position.insert(key, m_categories.size());
                m_categories.append(Category{match.category, {}});
            }
            m_categories[*it].types.append(match.type);
        }
    }
    Q_EMIT categories_changed();
}

} // namespace corv::widgets
