#pragma once

#include <QDialog>

class QTextBrowser;

namespace corv::widgets {

// One open-source project the program is built with, as the About window
// lists it.
struct OpenSourceProject {
    QString name;
    QString version;
    QString license;
    QString url;
};

// The projects this build links: Qt (the version it runs on) and, where the
// hotkeys use them, the X11 client libraries.
QList<OpenSourceProject> open_source_projects();

// "Menu.Help.About": the application icon, name and version, and the list of
// open-source projects used.
class AboutWindow : public QDialog {
    Q_OBJECT
public:
    explicit AboutWindow(QWidget *parent = nullptr);
    ~AboutWindow() override;

    QTextBrowser *projects_view() const { return m_projects; }

private:
    QTextBrowser *m_projects;
};

} // namespace corv::widgets
