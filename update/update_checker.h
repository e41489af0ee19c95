#pragma once

#include "update/candidates.h"
#include "update/fetcher.h"

#include <QList>
#include <QObject>
#include <QString>

class QNetworkAccessManager;
class QSettings;

namespace corv::update {

// One check for updates: fetches the manifest of every component at once,
// validates it and keeps the candidates newer than the installed and the
// ignored versions. finished() is emitted once, also after cancel().
class UpdateChecker : public QObject {
    Q_OBJECT
public:
    // `settings` holds the ignored versions; it must outlive the check.
    UpdateChecker(QList<Component> components, QSettings *settings, const FetchOptions &options,
                  QObject *parent = nullptr);
    ~UpdateChecker() override;

    void start();
    void cancel();

    bool is_finished() const { return m_pending == 0 && m_started; }
    bool was_canceled() const { return m_canceled; }
    // Components with something newer, in the order given.
    QList<ComponentUpdate> updates() const;
    // "<component>: <reason>" for each manifest that could not be fetched or
    // read.
    const QStringList &failures() const { return m_failures; }
    const QList<Component> &components() const { return m_components; }

Q_SIGNALS:
    void finished();

private:
    void received(qsizetype index, const FetchResult &result);
    void settle();

    QList<Component> m_components;
    QSettings *m_settings;
    FetchOptions m_options;
    QNetworkAccessManager *m_network;
    QList<Fetch *> m_fetches;
    QList<std::optional<ComponentUpdate>> m_results;
    QStringList m_failures;
    qsizetype m_pending = 0;
    bool m_started = false;
    bool m_canceled = false;
};

} // namespace corv::update
