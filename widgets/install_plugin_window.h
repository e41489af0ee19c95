#pragma once

#include "widgets/update_window.h"

#include <QDialog>

class QLabel;
class QLineEdit;
class QPushButton;

namespace corv::update {
class PluginInstaller;
}

namespace corv::widgets {

// "Menu.Help.InstallPlugin": asks for a plugin manifest address, shows the
// plugin it names (icon, name, id) and installs it into the plugins folder
// of the application data folder; the plugin is loaded at the next start.
class InstallPluginWindow : public QDialog {
    Q_OBJECT
public:
    InstallPluginWindow(const UpdateContext &context, QWidget *parent = nullptr);
    ~InstallPluginWindow() override;

    QLineEdit *url_field() const { return m_url; }
    QPushButton *fetch_button() const { return m_fetch; }
    QPushButton *install_button() const { return m_install; }
    QLabel *status_label() const { return m_status; }
    QLabel *icon_label() const { return m_icon; }
    QLabel *plugin_label() const { return m_plugin; }

private:
    void set_status(const QString &text);

    update::PluginInstaller *m_installer;
    QLineEdit *m_url;
    QPushButton *m_fetch;
    QLabel *m_icon;
    QLabel *m_plugin;
    QLabel *m_status;
    QPushButton *m_install;
};

// Opens the window (non-modal, deleted when closed) and returns it.
InstallPluginWindow *show_install_plugin_window(QWidget *parent, const UpdateContext &context);

} // namespace corv::widgets
