// Feeds arbitrary bytes to the plugin loader as what a plugin hands it: the
// strings and icon of its info record, and node types (id, name, category,
// icon) it registers. The bytes are NUL-separated fields; a flag byte in
// front makes some of them null pointers. Besides crashes and sanitizer
// reports it checks:
//  - the loader keeps each string as given (a null one as "") and the
//    version as QVersionNumber reads it;
//  - a second plugin with the same id is refused, with its message;
//  - a node type without an id, or with an id registered already, is
//    refused with its message; the others are found under their ids, with
//    the plugin's name as category and its icon when they bring none.
#include "fuzz/fuzz_support.h"
#include "engine/node_registry.h"
#include "sdk/plugin_list.h"

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QStringList>

#include <cstddef>
#include <cstdint>

using namespace corv::engine;

using corv::fuzz::broken;

namespace {

corv_plugin_info g_info = {};

int sdk_version()
{
    return CORV_SDK_VERSION;
}
void set_handle(corv_plugin *) {}
void get_info(corv_plugin_info *info)
{
    *info = g_info;
}

QStringList g_messages;
void record(QtMsgType, const QMessageLogContext &, const QString &message)
{
    g_messages.append(message);
}

bool reported(const char *text)
{
    for (const QString &message : std::as_const(g_messages)) {
        if (message.contains(QLatin1StringView(text)))
            return true;
    }
    return false;
}

// The fields of the input, in order; missing ones are null.
class Fields
{
public:
    explicit Fields(const QByteArray &bytes)
    {
        m_flags = bytes.isEmpty() ? 0 : std::uint8_t(bytes[0]);
        m_parts = bytes.mid(1).split('\0');
    }
    // Field n as the plugin would pass it: its bytes (ending at the NUL
    // split off), or null when the flags say so or it is missing.
    const char *text(int n) const
    {
        if (n < 8 && (m_flags >> n & 1))
            return nullptr;
        return n < m_parts.size() ? m_parts[n].constData() : nullptr;
    }
    QByteArray bytes(int n) const { return n < m_parts.size() ? m_parts[n] : QByteArray(); }
    qsizetype count() const { return m_parts.size(); }

private:
    std::uint8_t m_flags = 0;
    QList<QByteArray> m_parts;
};

QByteArray given(const char *text)
{
    return text ? QByteArray(text) : QByteArray("");
}

corv_icon icon_of(const QByteArray &field)
{
    // The first byte picks the format (0: let the reader tell).
    if (field.isEmpty())
        return {0, nullptr, 0};
    return {std::uint32_t(std::uint8_t(field[0]) % 7), field.constData() + 1, std::uint32_t(field.size() - 1)};
}

void check_info(const Plugin &plugin, const QByteArray &bytes)
{
    if (plugin.id_utf8() != given(g_info.id) || plugin.name() != given(g_info.name) ||
        plugin.version_text() != given(g_info.version) || plugin.author() != given(g_info.author) ||
        plugin.update_url() != given(g_info.update_url) ||
        plugin.description() != given(g_info.description) || plugin.website() != given(g_info.website))
        broken("the loader changed a string of the info record", bytes);
    if (plugin.id() != QString::fromUtf8(given(g_info.id)) ||
        plugin.identity().name != QString::fromUtf8(given(g_info.name)))
        broken("the plugin's identity differs from its info", bytes);
    if (plugin.version() != QVersionNumber::fromString(QString::fromUtf8(given(g_info.version))))
        broken("the plugin's version differs from its text", bytes);
}

void check_registration(const Plugin &plugin, const Fields &fields, const QByteArray &bytes)
{
    // Node types from field 9 on, three fields each: id, name, category;
    // every other one with the icon of field 8 too.
    NodeRegistry registry;
    QSet<QString> ids;
    QList<QString> order;
    QList<QString> categories;
    QList<bool> own_icon;
    {
        NodeRegistration registration(registry, plugin.identity());
        const QByteArray icon_bytes = fields.bytes(8);
        const corv_icon icon = icon_of(icon_bytes);
        for (int n = 9, k = 0; n < fields.count() && k < 16; n += 3, ++k) {
            corv_node_type type = {};
            type.id = fields.text(n);
            type.name = fields.text(n + 1);
            type.category = fields.text(n + 2);
            type.icon = k % 2 ? &icon : nullptr;
            const QString id = QString::fromUtf8(type.id);
            g_messages.clear();
            registration.register_node(&type);
            if (!*type.id) {
                if (!reported("can't register a node type without an id"))
                    broken("a node type without an id was not refused", bytes);
            } else if (ids.contains(id)) {
                if (!reported("already exists"))
                    broken("a node type registered twice was not refused", bytes);
            } else {
                ids.insert(id);
                order.append(id);
                categories.append(type.category ? QString::fromUtf8(type.category) : plugin.identity().name);
                own_icon.append(type.icon != nullptr);
            }
        }
        g_messages.clear();
        registration.register_node(nullptr);
        corv_node_type nameless = {};
        registration.register_node(&nameless);
        if (g_messages.size() != 2 || !reported("can't register a node type without an id"))
            broken("a node type without an id was not refused", bytes);
        registration.commit();
    }
    const QList<const NodeDefinition *> definitions = registry.definitions();
    if (definitions.size() != order.size())
        broken("the registry holds another number of node types than were accepted", bytes);
    for (qsizetype i = 0; i < order.size(); ++i) {
        const NodeDefinition *definition = registry.find(order[i]);
        if (definition != definitions[i] || definition->id != order[i] || definition->plugin != &plugin.identity())
            broken("a node type is not found under its id", bytes);
        if (definition->category != categories[i])
            broken("a node type has another category than it was given", bytes);
        if (!own_icon[i] && definition->icon != plugin.icon())
            broken("a node type without an icon lacks the plugin's", bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const Fields fields(bytes);
    const QByteArray icon_bytes = fields.bytes(7);
    const corv_icon icon = icon_of(icon_bytes);
    g_info = {fields.text(0), fields.text(1), fields.text(2), fields.text(3),
              fields.text(4), fields.text(5), fields.text(6), icon_bytes.isEmpty() ? nullptr : &icon};

    qInstallMessageHandler(record);
    g_messages.clear();
    {
        PluginList list;
        const PluginEntryPoints entry_points{sdk_version, set_handle, get_info};
        Plugin *plugin = list.add_builtin(entry_points, QStringLiteral("/nonexistent/corvane"));
        if (!plugin || list.count() != 1)
            broken("a plugin with every required entry point was refused", bytes);
        check_info(*plugin, bytes);

        g_messages.clear();
        if (list.add_builtin(entry_points, QStringLiteral("/nonexistent/again")) || list.count() != 1 ||
            !reported("already exists"))
            broken("a second plugin with the same id was not refused", bytes);

        check_registration(*plugin, fields, bytes);
        list.unload_all();
    }
    g_messages.clear();
    qInstallMessageHandler(corv::fuzz::silent);
    return 0;
}
