#include "widgets/preferences_window.h"

#include "cui/property_surface.h"
#include "cui/surface.h"
#include "locale/translate.h"
#include "widgets/preferences_window_view_model.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QScrollArea>
#include <QSettings>
#include <QSplitter>
#include <QStandardPaths>
#include <QVBoxLayout>

namespace corv::widgets {

namespace {

// Rows of the list: General, the "Plugins" header, then one per plugin page.
constexpr int kHeaderRow = 1;

QString settings_file()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/settings.ini");
}

} // namespace

PreferencesWindow::PreferencesWindow(PreferencesWindowViewModel *model, QWidget *parent)
    : QDialog(parent), m_model(model)
{
    model->setParent(this);
    resize(400, 300);

    m_list = new QListWidget;
    m_list->setStyleSheet(QStringLiteral("QListWidget { margin: 6px; }"));
    for (qsizetype page = 0; page < model->page_count(); ++page) {
        m_list->addItem(QString());
        if (page == 0) {
            auto *header = new QListWidgetItem;
            header->setFlags(Qt::NoItemFlags);
            m_list->addItem(header);
        }
    }
    if (model->page_count() == 0) {
        m_list->addItem(QString());
        m_list->item(0)->setFlags(Qt::NoItemFlags);
    }

    auto *right = new QWidget;
    auto *right_layout = new QVBoxLayout(right);
    right_layout->setContentsMargins(6, 6, 6, 6);
    m_subtitle = new QLabel;
    m_subtitle->setWordWrap(true);
    m_page = new QScrollArea;
    m_page->setWidgetResizable(true);
    m_page->setFrameShape(QFrame::NoFrame);
    right_layout->addWidget(m_subtitle);
    right_layout->addWidget(m_page, 1);

    m_splitter = new QSplitter;
    m_splitter->addWidget(m_list);
    m_splitter->addWidget(right);
    m_splitter->setStretchFactor(0, 0);
    m_splitter->setStretchFactor(1, 1);
    m_splitter->setChildrenCollapsible(false);
    // The page gets most of the room; the list shows names.
    m_splitter->setSizes({120, 280});

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_splitter, 1);
    layout->addWidget(buttons);

    connect(m_list, &QListWidget::currentRowChanged, this, &PreferencesWindow::show_row);
    connect(model, &PreferencesWindowViewModel::language_changed, this, &PreferencesWindow::retranslate);
    retranslate();

    QSettings settings(settings_file(), QSettings::IniFormat);
    restoreGeometry(settings.value(QStringLiteral("PreferencesWindow/Geometry")).toByteArray());
    m_splitter->restoreState(settings.value(QStringLiteral("PreferencesWindow/State")).toByteArray());
    // Row 0 opens, unless the page open last time is still there.
    const int open = settings.value(QStringLiteral("PreferencesWindow/OpenPanel"), 0).toInt();
    m_list->setCurrentRow(open > kHeaderRow && open < m_list->count() ? open : 0);
}

PreferencesWindow::~PreferencesWindow()
{
    // The page's widgets belong to its surface's view; drop the view first.
    delete m_page->takeWidget();
}

qsizetype PreferencesWindow::page_of_row(int row)
{
    if (row < 0 || row == kHeaderRow)
        return -1;
    return row == 0 ? 0 : row - 1;
}

void PreferencesWindow::show_row(int row)
{
    const qsizetype page = page_of_row(row);
    cui::PropertySurface *surface = m_model->page_surface(page);
    if (!surface)
        return;
    delete m_page->takeWidget();
    m_current = page;
    m_subtitle->setText(m_model->page_subtitle(page));
    m_subtitle->setVisible(!m_subtitle->text().isEmpty());
    QWidget *view = surface->surface()->create_view();
    // The right side has its margins already: the fields get every pixel across.
    view->setContentsMargins(0, 6, 0, 6);
    // The window is narrow: long labels go above their fields and wrap, in
    // any language; what still does not fit scrolls.
    for (QFormLayout *form : view->findChildren<QFormLayout *>())
        form->setRowWrapPolicy(QFormLayout::WrapLongRows);
    if (auto *form = qobject_cast<QFormLayout *>(view->layout()))
        form->setRowWrapPolicy(QFormLayout::WrapLongRows);
    for (QLabel *label : view->findChildren<QLabel *>())
        label->setWordWrap(true);
    m_page->setWidget(view);
}

void PreferencesWindow::retranslate()
{
    setWindowTitle(locale::translate("PreferencesWindow.Title"));
    for (int row = 0; row < m_list->count(); ++row) {
        const qsizetype page = page_of_row(row);
        m_list->item(row)->setText(page < 0 ? locale::translate("PreferencesWindow.Plugins")
                                            : m_model->page_title(page));
    }
    if (m_current >= 0)
        m_subtitle->setText(m_model->page_subtitle(m_current));
}

void PreferencesWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QDialog::changeEvent(event);
}

void PreferencesWindow::done(int result)
{
    QSettings settings(settings_file(), QSettings::IniFormat);
    settings.setValue(QStringLiteral("PreferencesWindow/Geometry"), saveGeometry());
    settings.setValue(QStringLiteral("PreferencesWindow/State"), m_splitter->saveState());
    settings.setValue(QStringLiteral("PreferencesWindow/OpenPanel"), m_list->currentRow());
    if (result == QDialog::Accepted)
        m_model->confirm();
    else
        m_model->cancel();
    QDialog::done(result);
}

int show_preferences_window(QWidget *parent, engine::PluginList &plugins)
{
    PreferencesWindow window(new PreferencesWindowViewModel(plugins), parent);
    QObject::connect(window.model(), &PreferencesWindowViewModel::language_changed, &window, [] {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            QEvent change(QEvent::LanguageChange);
            QCoreApplication::sendEvent(widget, &change);
        }
    });
    return window.exec();
}

} // namespace corv::widgets
