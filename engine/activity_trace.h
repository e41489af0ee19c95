#pragma once

#include "engine/activity_tap.h"

#include <QObject>

#include <cstdio>
#include <memory>
#include <string>

namespace corv::engine {

// Writes what the activity tap reports as JSON lines, one object per event a
// node receives:
//   {"time":1732451234567,"rack":"Demo","node":"Display","event":{"key":"value"}}
// time: milliseconds since the epoch; rack is "" outside every rack; the
// event's keys in the order they were first set. Strings are written as
// their UTF-8 bytes with JSON escapes for quotes, backslashes and control
// characters. Lines are gathered and written once the event loop is idle
// (or every 64 KiB), so a burst costs few writes.
class ActivityTrace : public ActivityTap::Listener
{
public:
    explicit ActivityTrace(std::FILE *out);
    ~ActivityTrace() override;

    void hop(const ActivityHop &hop) override;
    // Appends the line of one hop, with its newline.
    static void format(const ActivityHop &hop, std::string &out);
    // Writes what is buffered and flushes the file.
    void flush();

private:
    std::FILE *m_out;
    std::string m_buffer;
    bool m_flush_queued = false;
    // The context of the queued flush: it dies with the trace.
    std::unique_ptr<QObject> m_flusher = std::make_unique<QObject>();
};

} // namespace corv::engine
