#include "widgets/update_window_view_model.h"

#include "locale/translate.h"
#include "update/logging.h"

#include <QLocale>
#include <QNetworkAccessManager>
#include <QSettings>

namespace corv::widgets {

using update::DependencyGraph;

UpdateWindowViewModel::UpdateWindowViewModel(QList<update::ComponentUpdate> updates,
                                             QMap<QString, QVersionNumber> installed,
                                             const update::FetchOptions &options, QObject *parent)
    : QObject(parent), m_graph(std::move(updates), std::move(installed)), m_options(options),
      m_network(new QNetworkAccessManager(this)),
      m_fetch(new update::Fetch(m_network, options, this))
{}

UpdateWindowViewModel::~UpdateWindowViewModel() = default;

QString UpdateWindowViewModel::entry_text(const QString &name, const QVersionNumber &version) const
{
    return locale::translate("UpdateWindow.ComponentVersion.%1.%2", name, version.toString());
}

QString UpdateWindowViewModel::title(qsizetype row) const
{
    return locale::translate("UpdateWindow.ComponentVersion.%1.%2",
                             m_graph.update(row).component.name, m_graph.entry(row).version_text);
}

QString UpdateWindowViewModel::release_date(qsizetype row) const
{
    const QDateTime date = m_graph.entry(row).release_date;
    return date.isValid() ? QLocale().toString(date.toLocalTime().date(), QLocale::LongFormat)
                          : QString();
}

bool UpdateWindowViewModel::will_install(qsizetype row) const
{
    const DependencyGraph::State state = m_graph.state(row);
    return state == DependencyGraph::State::Install || state == DependencyGraph::State::Dependency;
}

void UpdateWindowViewModel::set_install_chosen(qsizetype row, bool install)
{
    if (install_chosen(row) == install)
        return;
    m_graph.set_skipped(row, !install);
    emit choices_changed();
}

void UpdateWindowViewModel::set_current(qsizetype row)
{
    if (row == m_current || row < 0 || row >= count())
        return;
    m_current = row;
    emit current_changed();
    load_description();
}

QList<UpdateWindowViewModel::Section> UpdateWindowViewModel::sections() const
{
    QList<Section> list;
    if (m_current < 0)
        return list;
    const QString name = m_graph.update(m_current).component.name;
    const auto add_rows = [&](const QList<qsizetype> &rows, Section section) {
        for (qsizetype row : rows)
            section.entries.append(locale::translate("UpdateWindow.RequiresEntry.%1", title(row)));
        list.append(section);
    };
    if (const QList<qsizetype> with = m_graph.installed_with(m_current); !with.isEmpty())
        add_rows(with, {locale::translate("UpdateWindow.WillInstallCaption.%1.%2",
                                          locale::plural(int(with.size())), name),
                        {}});
    if (const QList<DependencyGraph::Requirement> requirements = m_graph.requirements(m_current);
        !requirements.isEmpty()) {
        Section section{locale::translate("UpdateWindow.RequiresCaption.%1.%2",
                                          locale::plural(int(requirements.size())), name),
                        {}};
        for (const DependencyGraph::Requirement &requirement : requirements)
            section.entries.append(
                locale::translate("UpdateWindow.RequiresEntry.%1",
                                  entry_text(requirement.name, requirement.version)));
        list.append(section);
    }
    if (const QList<qsizetype> dependents = m_graph.dependents(m_current); !dependents.isEmpty())
        add_rows(dependents, {locale::translate("UpdateWindow.DependencyCaption.%1.%2",
                                                locale::plural(int(dependents.size())), name),
                              {}});
    if (const QList<update::Entry> passed = m_graph.passed_over(m_current); !passed.isEmpty()) {
        Section section{locale::translate("UpdateWindow.SkippedCaption.%1.%2",
                                          locale::plural(int(passed.size())), name),
                        {}};
        for (const update::Entry &entry : passed)
            section.entries.append(
                locale::translate("UpdateWindow.SkippedEntry.%1", entry_text(name, entry.version)));
        list.append(section);
    }
    return list;
}

void UpdateWindowViewModel::load_description()
{
    const update::Component &component = m_graph.update(m_current).component;
    const QUrl url = component.manifest_url.adjusted(QUrl::RemoveFragment)
                         .resolved(QUrl(m_graph.entry(m_current).description_url));
    const QString key = url.toString();
    m_fetch->abort();
    if (const auto it = m_descriptions.constFind(key); it != m_descriptions.constEnd()) {
        m_description = *it;
        m_description_is_html = true;
        emit description_changed();
        return;
    }
    m_description = locale::translate("UpdateWindow.LoadingDescription");
    m_description_is_html = false;
    emit description_changed();
    qCDebug(update::lc_update).noquote() << QStringLiteral("%1 updater: fetching changelog from %2")
                                                .arg(component.name, url.toDisplayString());
    const QString name = component.name;
    m_fetch->start(url, [this, key, name](const update::FetchResult &result) {
        if (result.ok()) {
            m_description = m_descriptions[key] = QString::fromUtf8(result.data);
            m_description_is_html = true;
        } else {
            qCWarning(update::lc_update).noquote()
                << QStringLiteral("%1 updater: failed to fetch changelog: %2")
                       .arg(name, result.error);
            m_description = locale::translate("UpdateWindow.ErrorFetchingDescription");
            m_description_is_html = false;
        }
        emit description_changed();
    });
}

QList<DependencyGraph::Install> UpdateWindowViewModel::accept(QSettings &settings) const
{
    for (qsizetype row = 0; row < count(); ++row) {
        if (!install_chosen(row) && !will_install(row))
            update::set_ignored_version(settings, m_graph.update(row).component.id,
                                        m_graph.update(row).candidates.first().version);
    }
    return m_graph.installs();
}

} // namespace corv::widgets
