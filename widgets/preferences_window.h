#pragma once

#include <QDialog>

class QLabel;
class QListWidget;
class QScrollArea;
class QSplitter;

namespace corv::engine {
class PluginList;
}

namespace corv::widgets {

class PreferencesWindowViewModel;

// "Menu.File.Preferences": the pages on the left (General, a "Plugins"
// header, one row per plugin with preferences), the chosen page on the right,
// OK and Cancel below. OK confirms every page, Cancel (or closing) undoes
// every edit. Geometry, splitter and the open page are kept in
// "settings.ini" under "PreferencesWindow/".
class PreferencesWindow : public QDialog
{
    Q_OBJECT
public:
    // The window takes the view model.
    PreferencesWindow(PreferencesWindowViewModel *model, QWidget *parent = nullptr);
    ~PreferencesWindow() override;

    PreferencesWindowViewModel *model() const { return m_model; }
    QListWidget *page_list() const { return m_list; }
    // The view model's page shown, or -1.
    qsizetype current_page() const { return m_current; }

    void done(int result) override;

protected:
    void changeEvent(QEvent *event) override;

private:
    void retranslate();
    void show_row(int row);
    // The view model's page of a list row, or -1 (the header).
    static qsizetype page_of_row(int row);

    PreferencesWindowViewModel *m_model;
    QSplitter *m_splitter = nullptr;
    QListWidget *m_list = nullptr;
    QLabel *m_subtitle = nullptr;
    QScrollArea *m_page = nullptr;
    qsizetype m_current = -1;
};

// Opens the preferences window over `plugins`, modal to parent, and returns
// once it is closed: QDialog::Accepted when confirmed. A confirmed language
// change reaches every top-level widget as a QEvent::LanguageChange.
int show_preferences_window(QWidget *parent, engine::PluginList &plugins);

} // namespace corv::widgets
