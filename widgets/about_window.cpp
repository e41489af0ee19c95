#include "widgets/about_window.h"

#include "locale/translate.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace corv::widgets {

QList<OpenSourceProject> open_source_projects()
{
    QList<OpenSourceProject> projects;
    projects.append({QStringLiteral("Qt"), QString::fromLatin1(qVersion()),
                     QStringLiteral("LGPL-3.0-only"), QStringLiteral("https://www.qt.io/")});
#if defined(Q_OS_LINUX)
    // The X11 hotkey backend: key state and injected key presses.
    projects.append({QStringLiteral("libX11"), QString(), QStringLiteral("MIT"),
                     QStringLiteral("https://www.x.org/")});
    projects.append({QStringLiteral("libXtst"), QString(), QStringLiteral("MIT"),
                     QStringLiteral("https://www.x.org/")});
#endif
    return projects;
}

AboutWindow::AboutWindow(QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("CorvAboutWindow"));
    setWindowTitle(locale::translate("AboutWindow.Title"));
    resize(460, 380);

    auto *icon = new QLabel(this);
    icon->setPixmap(QApplication::windowIcon().pixmap(64, 64));
    auto *name = new QLabel(this);
    name->setObjectName(QStringLiteral("AboutName"));
    name->setText(
        QStringLiteral("<h2>%1</h2>%2")
            .arg(QCoreApplication::applicationName().toHtmlEscaped(),
                 locale::translate("AboutWindow.Version.%1", QCoreApplication::applicationVersion())
                     .toHtmlEscaped()));
    auto *header = new QHBoxLayout;
    header->addWidget(icon);
    header->addWidget(name, 1);

    auto *description = new QLabel(locale::translate("AboutWindow.Description"), this);
    description->setWordWrap(true);

    QString rows;
    for (const OpenSourceProject &project : open_source_projects()) {
        rows += QStringLiteral("<li><a href=\"%1\">%2</a> %3 — %4</li>")
                    .arg(project.url.toHtmlEscaped(), project.name.toHtmlEscaped(),
                         project.version.toHtmlEscaped(), project.license.toHtmlEscaped());
    }
    m_projects = new QTextBrowser(this);
    m_projects->setOpenExternalLinks(true);
    m_projects->setHtml(
        QStringLiteral("<p>%1</p><ul>%2</ul>")
            .arg(locale::translate("AboutWindow.OpenSource").toHtmlEscaped(), rows));

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(header);
    layout->addWidget(description);
    layout->addWidget(m_projects, 1);
    layout->addWidget(buttons);
}

AboutWindow::~AboutWindow() = default;

} // namespace corv::widgets
