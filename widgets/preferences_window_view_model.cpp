#include "widgets/preferences_window_view_model.h"

#include "cui/property_surface.h"
#include "cui/store_editor.h"
#include "locale/translate.h"
#include "model/property.h"
#include "model/value.h"
#include "persistence/command_manager.h"
#include "sdk/plugin.h"
#include "sdk/plugin_list.h"
#include "sdk/plugin_preferences.h"

namespace corv::widgets {

namespace {

void forget_history(engine::Plugin &plugin)
{
    engine::PropertyCollectionCommandManager &commands = plugin.preferences()->command_manager();
    commands.commit_pending();
    commands.clear();
}

} // namespace

std::unique_ptr<cui::PropertySurface> make_preferences_surface(engine::Plugin &plugin)
{
    engine::PluginPreferences *preferences = plugin.preferences();
    const auto build = plugin.entry_points().build_preferences;
    if (!preferences || !build)
        return nullptr;
    auto surface = std::make_unique<cui::PropertySurface>(
        nullptr, preferences->store(), cui::StoreEditor::for_collection(&preferences->command_manager()));
    QObject::connect(surface.get(), &engine::PropertySurface::build, surface.get(),
                     [build](cui::GenerateContext &context) {
                         build(reinterpret_cast<cui_generate_context *>(&context));
                     });
    cui::PropertySurface *raw = surface.get();
    QObject::connect(preferences, &engine::PluginPreferences::rebuild_requested, raw,
                     [raw] { raw->rebuild(); });
    surface->rebuild();
    return surface;
}

PreferencesWindowViewModel::PreferencesWindowViewModel(engine::PluginList &plugins, QObject *parent)
    : QObject(parent), m_plugins(&plugins)
{
    for (qsizetype i = 0; i < plugins.count(); ++i) {
        engine::Plugin *plugin = plugins.at(i);
        if (!plugin->preferences() || !plugin->entry_points().build_preferences)
            continue;
        forget_history(*plugin);
        Page page{plugin, make_preferences_surface(*plugin)};
        // The application's page comes first whatever the list order.
        if (plugin->is_builtin())
            m_pages.insert(m_pages.begin(), std::move(page));
        else
            m_pages.push_back(std::move(page));
    }
}

PreferencesWindowViewModel::~PreferencesWindowViewModel()
{
    if (!m_done)
        cancel();
}

engine::Plugin *PreferencesWindowViewModel::page_plugin(qsizetype page) const
{
    return page >= 0 && page < page_count() ? m_pages[std::size_t(page)].plugin : nullptr;
}

cui::PropertySurface *PreferencesWindowViewModel::page_surface(qsizetype page) const
{
    return page >= 0 && page < page_count() ? m_pages[std::size_t(page)].surface.get() : nullptr;
}

QString PreferencesWindowViewModel::page_title(qsizetype page) const
{
    const engine::Plugin *plugin = page_plugin(page);
    if (!plugin)
        return {};
    if (plugin->is_builtin())
        return locale::translate("PreferencesWindow.General");
    return QString::fromUtf8(plugin->name());
}

QString PreferencesWindowViewModel::page_subtitle(qsizetype page) const
{
    const engine::Plugin *plugin = page_plugin(page);
    if (!plugin || plugin->is_builtin())
        return {};
    return locale::translate("PreferencesWindow.PluginSubtitle.%1.%2", QString::fromUtf8(plugin->name()),
                             QString::fromUtf8(plugin->version_text()));
}

bool PreferencesWindowViewModel::has_changes() const
{
    for (const Page &page : m_pages) {
        const auto &commands = page.plugin->preferences()->command_manager();
        if (commands.can_undo() || commands.has_pending())
            return true;
    }
    return false;
}

void PreferencesWindowViewModel::confirm()
{
    m_done = true;
    const QByteArray language = locale::application_translator()->locale();
    for (Page &page : m_pages)
        page.plugin->preferences()->command_manager().commit_pending();
    m_plugins->confirm_preferences();
    for (Page &page : m_pages)
        forget_history(*page.plugin);
    if (locale::application_translator()->locale() != language) {
        for (Page &page : m_pages)
            page.surface->rebuild();
        Q_EMIT language_changed();
    }
}

void PreferencesWindowViewModel::cancel()
{
    m_done = true;
    for (Page &page : m_pages) {
        engine::PropertyCollectionCommandManager &commands = page.plugin->preferences()->command_manager();
        commands.commit_pending();
        while (commands.can_undo())
            commands.undo();
        commands.clear();
    }
}

} // namespace corv::widgets
