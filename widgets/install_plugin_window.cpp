#include "widgets/install_plugin_window.h"

#include "locale/translate.h"
#include "update/platform.h"
#include "update/plugin_installer.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QVBoxLayout>

namespace corv::widgets {

InstallPluginWindow::InstallPluginWindow(const UpdateContext &context, QWidget *parent)
    : QDialog(parent),
      m_installer(new update::PluginInstaller(
          update::FetchOptions{context.user_agent, context.stall_timeout_ms},
          context.plugins_folder, QString::fromLatin1(update::platform::plugin_update_method()),
          this)),
      m_url(new QLineEdit),
      m_fetch(new QPushButton(locale::translate("InstallPluginWindow.Fetch"))), m_icon(new QLabel),
      m_plugin(new QLabel), m_status(new QLabel),
      m_install(new QPushButton(locale::translate("InstallPluginWindow.Install")))
{
    setObjectName(QStringLiteral("InstallPluginWindow"));
    m_installer->set_loaded_plugins(context.plugins);
    setWindowTitle(locale::translate("InstallPluginWindow.Title"));
    resize(480, 200);

    auto *url_row = new QHBoxLayout;
    url_row->addWidget(m_url, 1);
    url_row->addWidget(m_fetch);
    auto *form = new QFormLayout;
    form->addRow(locale::translate("InstallPluginWindow.ManifestUrl"), url_row);

    m_icon->setFixedSize(48, 48);
    m_icon->setScaledContents(true);
    auto *plugin_row = new QHBoxLayout;
    plugin_row->addWidget(m_icon);
    plugin_row->addWidget(m_plugin, 1);
    m_status->setWordWrap(true);

    auto *buttons = new QDialogButtonBox;
    buttons->addButton(m_install, QDialogButtonBox::AcceptRole);
    buttons->addButton(locale::translate("InstallPluginWindow.Close"),
                       QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addLayout(plugin_row);
    layout->addWidget(m_status);
    layout->addStretch(1);
    layout->addWidget(buttons);

    m_install->setEnabled(false);
    m_fetch->setEnabled(false);
    connect(m_url, &QLineEdit::textChanged, this,
            [this](const QString &text) { m_fetch->setEnabled(!text.trimmed().isEmpty()); });
    connect(m_url, &QLineEdit::returnPressed, m_fetch, &QPushButton::click);
    connect(m_fetch, &QPushButton::clicked, this, [this] {
        m_install->setEnabled(false);
        m_icon->clear();
        m_plugin->clear();
        set_status(locale::translate("InstallPluginWindow.Fetching"));
        m_installer->fetch_manifest(QUrl::fromUserInput(m_url->text().trimmed()));
    });
    connect(m_installer, &update::PluginInstaller::manifest_ready, this, [this] {
        const update::PluginManifest &manifest = *m_installer->manifest();
        m_plugin->setText(locale::translate("InstallPluginWindow.Plugin.%1.%2",
                                            manifest.display_name, manifest.id));
        // Installing over a plugin that is there updates it; say so first.
        const QVersionNumber installed = m_installer->installed_version();
        const update::Entry *release = m_installer->release();
        set_status(installed.isNull() || !release
                       ? QString()
                       : locale::translate("InstallPluginWindow.Update.%1.%2.%3",
                                           manifest.display_name, installed.toString(),
                                           release->version_text));
        m_install->setEnabled(true);
    });
    connect(m_installer, &update::PluginInstaller::icon_ready, this,
            [this](const QByteArray &bytes) {
                QPixmap pixmap;
                if (pixmap.loadFromData(bytes))
                    m_icon->setPixmap(pixmap);
            });
    connect(m_install, &QPushButton::clicked, this, [this] {
        m_install->setEnabled(false);
        m_fetch->setEnabled(false);
        set_status(locale::translate("InstallPluginWindow.Installing.%1",
                                     m_installer->manifest()->display_name));
        m_installer->install();
    });
    connect(m_installer, &update::PluginInstaller::installed, this, [this] {
        set_status(locale::translate("InstallPluginWindow.Installed.%1",
                                     m_installer->manifest()->display_name));
        m_fetch->setEnabled(true);
    });
    connect(m_installer, &update::PluginInstaller::failed, this, [this](const QString &message) {
        set_status(locale::translate("InstallPluginWindow.Failed.%1", message));
        m_fetch->setEnabled(true);
        m_install->setEnabled(m_installer->manifest().has_value());
    });
}

InstallPluginWindow::~InstallPluginWindow() = default;

void InstallPluginWindow::set_status(const QString &text)
{
    m_status->setText(text);
}

InstallPluginWindow *show_install_plugin_window(QWidget *parent, const UpdateContext &context)
{
    auto *window = new InstallPluginWindow(context, parent);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->show();
    return window;
}

} // namespace corv::widgets
