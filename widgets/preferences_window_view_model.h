#pragma once

#include <QObject>
#include <QString>

#include <memory>
#include <vector>

namespace corv::cui {
class PropertySurface;
}

namespace corv::engine {
class Plugin;
class PluginList;
} // namespace corv::engine

namespace corv::widgets {

// The preferences surface of a plugin that has preferences: its
// cplugin_build_preferences declares it over the plugin's preferences, edits
// go through the preferences' own undo history, and a plugin's request to
// rebuild its page rebuilds it. Built once before it is returned; null for a
// plugin without preferences.
std::unique_ptr<cui::PropertySurface> make_preferences_surface(engine::Plugin &plugin);

// The pages of the preferences window and what confirming or cancelling
// does to them. Page 0 is the application's own (the executable's plugin,
// "General"); then one page per other plugin with preferences, in list order.
class PreferencesWindowViewModel : public QObject
{
    Q_OBJECT
public:
    explicit PreferencesWindowViewModel(engine::PluginList &plugins, QObject *parent = nullptr);
    // Cancels what was neither confirmed nor cancelled.
    ~PreferencesWindowViewModel() override;

    qsizetype page_count() const { return qsizetype(m_pages.size()); }
    engine::Plugin *page_plugin(qsizetype page) const;
    cui::PropertySurface *page_surface(qsizetype page) const;
    // "PreferencesWindow.General" for page 0, else the plugin's name.
    QString page_title(qsizetype page) const;
    // Empty for page 0, else "PreferencesWindow.PluginSubtitle.%1.%2" with
    // the plugin's name and version.
    QString page_subtitle(qsizetype page) const;

    // Whether any page was edited since the window opened.
    bool has_changes() const;

    // Hands every plugin its confirmed preferences and writes them; a new
    // language is applied and announced.
    void confirm();
    // Undoes every edit of every page.
    void cancel();

Q_SIGNALS:
    // The confirmed preferences changed the language: texts are to be
    // fetched again (the pages have been rebuilt already).
    void language_changed();

private:
    struct Page {
        engine::Plugin *plugin = nullptr;
        std::unique_ptr<cui::PropertySurface> surface;
    };

    engine::PluginList *m_plugins;
    std::vector<Page> m_pages;
    bool m_done = false;
};

} // namespace corv::widgets
