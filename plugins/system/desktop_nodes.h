#pragma once

// The node types that hand something to the desktop or take it from there:
//   Open                  a file, folder or address, with the desktop's handler
//   Set Clipboard         puts a text on the clipboard
//   On Clipboard Changed  starts an event with the clipboard's new text
//   Show Notification     a title and a text through the notification service
// The desktop is only touched on the GUI thread. Without one (a headless run,
// the offscreen platform) the nodes say so in their panel and, once, in the log.

#include <corvane/corvane_sdk.h>

#include <QObject>
#include <QRegularExpression>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

namespace corv_system {

inline constexpr const char *kOpenId = "io.marrowfield.system.open";
inline constexpr const char *kSetClipboardId = "io.marrowfield.system.setclipboard";
inline constexpr const char *kOnClipboardId = "io.marrowfield.system.onclipboard";
inline constexpr const char *kNotifyId = "io.marrowfield.system.notify";

// A template's result for an event (no length cap).
QString expand(const QString &text, corv_event *event);

// True in a GUI application on a real window system: there is a clipboard
// and a desktop to open things with.
bool have_desktop();

// Runs fn on the GUI thread: at once when called there, queued otherwise.
void on_gui_thread(std::function<void()> fn);

// What Open hands to the desktop for a template's result: an http, https,
// file or mailto address as it stands, any other text as a file path. The
// problem is empty when the text can be opened, else the locale key of why
// not ("Open.Refused.%1" ...).
struct OpenTarget {
    QUrl url;
    const char *problem = nullptr;
};
OpenTarget open_target(const QString &text);

// What the desktop nodes share: the node, where it passes events on, and a
// problem it shows in its panel until the next success.
class DesktopNode
{
public:
    explicit DesktopNode(corv_node *node);
    virtual ~DesktopNode() = default;
    DesktopNode(const DesktopNode &) = delete;
    DesktopNode &operator=(const DesktopNode &) = delete;

    // The settings from the node's store (a project being opened), then
    // from its panel whenever that is built.
    virtual void load(corv_store *store) = 0;
    virtual void build(cui_generate_context *context) = 0;
    virtual void on_event(corv_event *event); // owns event; passes it on
    virtual void instance_name(char *buffer) const;
    virtual uint32_t decoration() const;

protected:
    // A text setting from the store, or its default.
    static QString stored(corv_store *store, const char *key, const char *fallback);

    // Shows text (translated) in the panel from now on; logs the English
    // line as a warning when the panel's text changes (or always, with
    // log_again), never when the line is empty.
    void show_problem(const QString &text, const QString &log_line, bool log_again = false);
    void clear_problem();
    // The problem's label, at the end of a build.
    void build_problem(cui_generate_context *context) const;
    // Says in the panel that there is no clipboard; the log hears it once.
    void no_clipboard();

    corv_node *m_node;
    corv_sink *m_out;
    const char *m_type_key = "";
    QString m_problem;
};

class OpenNode : public DesktopNode
{
public:
    explicit OpenNode(corv_node *node);
    void load(corv_store *store) override;
    void build(cui_generate_context *context) override;
    void on_event(corv_event *event) override;
    void instance_name(char *buffer) const override;
    uint32_t decoration() const override;

private:
    QString m_target;
};

class SetClipboardNode : public DesktopNode
{
public:
    explicit SetClipboardNode(corv_node *node);
    void load(corv_store *store) override;
    void build(cui_generate_context *context) override;
    void on_event(corv_event *event) override;

private:
    QString m_text;
};

class OnClipboardNode : public DesktopNode
{
public:
    explicit OnClipboardNode(corv_node *node);
    void load(corv_store *store) override;
    void build(cui_generate_context *context) override;
    uint32_t decoration() const override;

private:
    void set_filter(const QString &filter);
    void changed();
    void settled();

    corv_sink *m_children;
    QObject m_context; // ends the clipboard connection with the node
    QTimer m_debounce;
    QRegularExpression m_filter;
    QString m_filter_text;
    QString m_filter_error; // why the filter is no regular expression
    QString m_last;
    bool m_filter_read = false;
    bool m_listening = false;
};

class NotifyNode : public DesktopNode
{
public:
    explicit NotifyNode(corv_node *node);
    void load(corv_store *store) override;
    void build(cui_generate_context *context) override;
    void on_event(corv_event *event) override;

private:
    QString m_title;
    QString m_text;
    QObject m_context; // answers from the notification service die with it
};

} // namespace corv_system
