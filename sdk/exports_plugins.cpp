// The plugin and translation functions of the SDK (main thread). A plugin
// handle is the Plugin object; a translation builder is the locale library's
// TrBuilder.

#include "locale/c_api.h"
#include "sdk/include/corvane/corvane_sdk.h"
#include "sdk/logging.h"
#include "sdk/plugin.h"
#include "sdk/plugin_preferences.h"

#include <QDir>

using namespace corv;
using namespace corv::engine;

namespace {

Plugin *plugin_of(corv_plugin *handle)
{
    return Plugin::from_handle(handle);
}

const locale::Translator *translator_of(corv_plugin *handle)
{
    Plugin *plugin = plugin_of(handle);
    return plugin ? plugin->translator() : nullptr;
}

locale::TrBuilder *builder_of(corv_tr_builder *builder)
{
    return reinterpret_cast<locale::TrBuilder *>(builder);
}

corv_tr_builder *to_handle(locale::TrBuilder *builder)
{
    return reinterpret_cast<corv_tr_builder *>(builder);
}

} // namespace

corv_store *corv_plugin_preferences_store(corv_plugin *plugin)
{
    Plugin *p = plugin_of(plugin);
    return p && p->preferences() ? p->preferences()->store_handle() : nullptr;
}

void corv_plugin_invalidate_preferences(corv_plugin *plugin)
{
    Plugin *p = plugin_of(plugin);
    if (p && p->preferences())
        p->preferences()->invalidate();
}

void corv_plugin_log(corv_plugin *plugin, int level, const char *text)
{
    Plugin *p = plugin_of(plugin);
    const QByteArray id = p ? p->id_utf8() : QByteArray("?");
    const char *line = text ? text : "";
    if (level >= CORV_LOG_WARNING)
        qCWarning(lc_sdk, "%s: %s", id.constData(), line);
    else if (level == CORV_LOG_INFO)
        qCInfo(lc_sdk, "%s: %s", id.constData(), line);
    else
        qCDebug(lc_sdk, "%s: %s", id.constData(), line);
}

const char *corv_plugin_get_install_dir(corv_plugin *plugin)
{
    Plugin *p = plugin_of(plugin);
    return p ? p->install_dir_utf8().constData() : nullptr;
}

const char *corv_plugin_get_data_dir(corv_plugin *plugin)
{
    Plugin *p = plugin_of(plugin);
    if (!p)
        return nullptr;
    // Made when asked for: most plugins keep no files.
    QDir().mkpath(p->data_dir());
    return p->data_dir_utf8().constData();
}

const char *corv_plugin_tr(corv_plugin *plugin, const char *key)
{
    return locale::plugin_tr(translator_of(plugin), key);
}

corv_tr_builder *corv_plugin_tr_arg(corv_plugin *plugin, const char *key)
{
    return to_handle(locale::plugin_tr_arg(translator_of(plugin), key));
}

corv_tr_builder *corv_tr_str(corv_tr_builder *builder, const char *value)
{
    return to_handle(locale::tr_str(builder_of(builder), value));
}

corv_tr_builder *corv_tr_int(corv_tr_builder *builder, int value)
{
    return to_handle(locale::tr_int(builder_of(builder), value));
}

corv_tr_builder *corv_tr_int_plural(corv_tr_builder *builder, int value)
{
    return to_handle(locale::tr_int_plural(builder_of(builder), value));
}

corv_tr_builder *corv_tr_float(corv_tr_builder *builder, double value)
{
    return to_handle(locale::tr_float(builder_of(builder), value));
}

corv_tr_builder *corv_tr_float_plural(corv_tr_builder *builder, double value)
{
    return to_handle(locale::tr_float_plural(builder_of(builder), value));
}

char *corv_tr_end(corv_tr_builder *builder)
{
    return locale::tr_end(builder_of(builder));
}

void corv_tr_end_str(corv_tr_builder *builder, char *out)
{
    locale::tr_end_str(builder_of(builder), out);
}

char *corv_plugin_tr_plural(corv_plugin *plugin, const char *key, int count)
{
    return locale::plugin_tr_plural(translator_of(plugin), key, count);
}

void corv_plugin_tr_plural_str(corv_plugin *plugin, const char *key, int count, char *out)
{
    locale::plugin_tr_plural_str(translator_of(plugin), key, count, out);
}
