#include "update/update_checker.h"

#include "update/logging.h"

#include <QNetworkAccessManager>
#include <QSettings>
#include <QTimer>

namespace corv::update {

UpdateChecker::UpdateChecker(QList<Component> components, QSettings *settings,
                             const FetchOptions &options, QObject *parent)
    : QObject(parent), m_components(std::move(components)), m_settings(settings),
      m_options(options), m_network(new QNetworkAccessManager(this))
{}

UpdateChecker::~UpdateChecker() = default;

void UpdateChecker::start()
{
    if (m_started)
        return;
    m_started = true;
    m_results.resize(m_components.size());
    m_pending = m_components.size();
    if (m_pending == 0) {
        QTimer::singleShot(0, this, &UpdateChecker::finished);
        return;
    }
    for (qsizetype i = 0; i < m_components.size(); ++i) {
        const Component &component = m_components[i];
        qCDebug(lc_update).noquote()
            << QStringLiteral("%1 updater: fetching manifest from %2")
                   .arg(component.name, component.manifest_url.toDisplayString());
        auto *fetch = new Fetch(m_network, m_options, this);
        m_fetches.append(fetch);
        fetch->start(component.manifest_url.adjusted(QUrl::RemoveFragment),
                     [this, i](const FetchResult &result) { received(i, result); });
    }
}

void UpdateChecker::received(qsizetype index, const FetchResult &result)
{
    const Component &component = m_components[index];
    if (!result.ok()) {
        qCWarning(lc_update).noquote() << QStringLiteral("%1 updater: failed to fetch manifest: %2")
                                              .arg(component.name, result.error);
        m_failures.append(component.name + QStringLiteral(": ") + result.error);
    } else {
        QString error;
        if (const std::optional<Manifest> manifest =
                read_manifest(result.data, component.name, &error)) {
            const QVersionNumber ignored =
                m_settings ? ignored_version(*m_settings, component.id) : QVersionNumber();
            QList<Entry> candidates = choose_candidates(component, *manifest, ignored);
            if (!candidates.isEmpty())
                m_results[index] = ComponentUpdate{component, ignored, std::move(candidates)};
        } else {
            m_failures.append(error);
        }
    }
    if (--m_pending == 0)
        settle();
}

void UpdateChecker::settle()
{
    for (Fetch *fetch : std::as_const(m_fetches))
        fetch->deleteLater();
    m_fetches.clear();
    emit finished();
}

void UpdateChecker::cancel()
{
    if (!m_started || m_pending == 0)
        return;
    m_canceled = true;
    m_pending = 0;
    for (Fetch *fetch : std::as_const(m_fetches))
        fetch->abort();
    settle();
}

QList<ComponentUpdate> UpdateChecker::updates() const
{
    QList<ComponentUpdate> list;
    if (m_canceled)
        return list;
    for (const std::optional<ComponentUpdate> &result : m_results) {
        if (result)
            list.append(*result);
    }
    return list;
}

} // namespace corv::update
