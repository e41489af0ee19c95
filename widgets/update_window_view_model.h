#pragma once

#include "update/dependency_graph.h"
#include "update/fetcher.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

class QSettings;

namespace corv::widgets {

// What the update window shows: one row per component with an update, the
// user's install-or-skip choice, the relations of the current row as
// captioned lists, and its release notes (fetched on demand, kept per
// address).
class UpdateWindowViewModel : public QObject {
    Q_OBJECT
public:
    struct Section {
        QString caption;
        QStringList entries;
    };

    UpdateWindowViewModel(QList<update::ComponentUpdate> updates,
                          QMap<QString, QVersionNumber> installed,
                          const update::FetchOptions &options, QObject *parent = nullptr);
    ~UpdateWindowViewModel() override;

    qsizetype count() const { return m_graph.count(); }
    // "Name version" of the entry a row offers.
    QString title(qsizetype row) const;
    QString release_date(qsizetype row) const;
    update::DependencyGraph::State state(qsizetype row) const { return m_graph.state(row); }
    bool will_install(qsizetype row) const;
    // The user's choice: "install this version" or "skip this version".
    bool install_chosen(qsizetype row) const { return !m_graph.is_skipped(row); }
    void set_install_chosen(qsizetype row, bool install);

    qsizetype current() const { return m_current; }
    void set_current(qsizetype row);
    // The captioned lists of the current row: what installs with it, what
    // it requires, what depends on it, which versions are passed over.
    QList<Section> sections() const;
    // The release notes of the current row, or the loading / error text.
    const QString &description() const { return m_description; }
    bool description_is_html() const { return m_description_is_html; }

    // Accepting: the versions the user skipped are remembered as ignored
    // versions; returns what to install.
    QList<update::DependencyGraph::Install> accept(QSettings &settings) const;
    const update::DependencyGraph &graph() const { return m_graph; }

Q_SIGNALS:
    void choices_changed();
    void current_changed();
    void description_changed();

private:
    QString entry_text(const QString &name, const QVersionNumber &version) const;
    void load_description();

    update::DependencyGraph m_graph;
    update::FetchOptions m_options;
    class QNetworkAccessManager *m_network;
    update::Fetch *m_fetch;
    qsizetype m_current = -1;
    QString m_description;
    bool m_description_is_html = false;
    QHash<QString, QString> m_descriptions;
};

} // namespace corv::widgets
