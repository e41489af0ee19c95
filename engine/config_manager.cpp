#include "engine/config_manager.h"

#include "model/property.h"
#include "model/value.h"

#include <type_traits>

namespace corv::engine {

namespace {

// The value under key when it holds exactly that type.
template <typename T>
bool take(const model::PropertyCollection &preferences, const char *key, model::ValueType type, T *out)
{
    const model::Property *property = preferences.find(QString::fromLatin1(key));
    if (!property || property->value().type() != type)
        return false;
    if constexpr (std::is_same_v<T, bool>)
        *out = property->value().to_bool();
    else
        *out = property->value().to_int();
    return true;
}

} // namespace

ConfigManager::ConfigManager(QObject *parent) : QObject(parent) {}

ConfigManager::~ConfigManager() = default;

void ConfigManager::read(const model::PropertyCollection &preferences)
{
    int number = 0;
    bool flag = false;
    if (take(preferences, "saveversions", model::ValueType::Int, &number))
        set_save_versions(number);
    if (take(preferences, "autosave", model::ValueType::Bool, &flag))
        set_autosave_enabled(flag);
    if (take(preferences, "autosaveminutes", model::ValueType::Int, &number))
        set_autosave_minutes(number);
    if (take(preferences, "inputpollms", model::ValueType::Int, &number))
        set_input_poll_ms(number);
    if (take(preferences, "inputgapms", model::ValueType::Int, &number))
        set_input_gap_ms(number);
}

void ConfigManager::set_save_versions(int versions)
{
    if (m_save_versions == versions)
        return;
    m_save_versions = versions;
    Q_EMIT save_versions_changed(versions);
}

void ConfigManager::set_autosave_enabled(bool enabled)
{
    if (m_autosave == enabled)
        return;
    m_autosave = enabled;
    Q_EMIT is_autosave_enabled_changed(enabled);
}

void ConfigManager::set_autosave_minutes(int minutes)
{
    if (m_autosave_minutes == minutes)
        return;
    m_autosave_minutes = minutes;
    Q_EMIT autosave_minutes_changed(minutes);
}

void ConfigManager::set_input_poll_ms(int ms)
{
    if (m_input_poll_ms == ms)
        return;
    m_input_poll_ms = ms;
    Q_EMIT input_poll_ms_changed(ms);
}

void ConfigManager::set_input_gap_ms(int ms)
{
    if (m_input_gap_ms == ms)
        return;
    m_input_gap_ms = ms;
    Q_EMIT input_gap_ms_changed(ms);
}

} // namespace corv::engine
