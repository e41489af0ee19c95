#pragma once

#include <QObject>

namespace corv::model {
class PropertyCollection;
}

namespace corv::engine {

// The application preferences that steer the program while it runs: backups
// and autosave for the project manager, the input timings for the hotkey
// poller and the key injector. One per application; the values are copied
// from the application's preference collection whenever the preferences are
// read or confirmed. Every value is 0 or false until then.
class ConfigManager : public QObject
{
    Q_OBJECT
public:
    explicit ConfigManager(QObject *parent = nullptr);
    ~ConfigManager() override;

    // "saveversions": how many backup versions a save keeps.
    int save_versions() const { return m_save_versions; }
    // "autosave": whether the open project is saved on a timer.
    bool is_autosave_enabled() const { return m_autosave; }
    // "autosaveminutes": the autosave period.
    int autosave_minutes() const { return m_autosave_minutes; }
    // "inputpollms": the hotkey poll interval in milliseconds.
    int input_poll_ms() const { return m_input_poll_ms; }
    // "inputgapms": the pause between injected key presses in milliseconds.
    int input_gap_ms() const { return m_input_gap_ms; }

    // Takes every value whose key holds a property of exactly the expected
    // type (int, or bool for "autosave"); other keys keep their value.
    // Emits the change signal of each value that differs.
    void read(const model::PropertyCollection &preferences);

    void set_save_versions(int versions);
    void set_autosave_enabled(bool enabled);
    void set_autosave_minutes(int minutes);
    void set_input_poll_ms(int ms);
    void set_input_gap_ms(int ms);

Q_SIGNALS:
    void save_versions_changed(int versions);
    void is_autosave_enabled_changed(bool enabled);
    void autosave_minutes_changed(int minutes);
    void input_poll_ms_changed(int ms);
    void input_gap_ms_changed(int ms);

private:
    int m_save_versions = 0;
    bool m_autosave = false;
    int m_autosave_minutes = 0;
    int m_input_poll_ms = 0;
    int m_input_gap_ms = 0;
};

} // namespace corv::engine
