#include "engine/activity_trace.h"

#include "engine/node_instance.h"
#include "engine/node_manager.h"
#include "engine/rack_manager.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

namespace corv::engine {

namespace {

void append_json(std::string &out, const char *text, qsizetype size)
{
    static const char hex[] = "0123456789abcdef";
    out += '"';
    const char *from = text;
    const char *end = text + size;
    for (const char *at = text; at != end; ++at) {
        const unsigned char c = static_cast<unsigned char>(*at);
        if (c >= 0x20 && c != '"' && c != '\\')
            continue;
        out.append(from, at);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
        from = at + 1;
    }
    out.append(from, end);
    out += '"';
}

void append_json(std::string &out, const QByteArray &text)
{
    append_json(out, text.constData(), text.size());
}

} // namespace

ActivityTrace::ActivityTrace(std::FILE *out) : m_out(out)
{
    ActivityTap::add_listener(this);
}

ActivityTrace::~ActivityTrace()
{
    ActivityTap::remove_listener(this);
    flush();
}

void ActivityTrace::flush()
{
    m_flush_queued = false;
    std::fwrite(m_buffer.data(), 1, m_buffer.size(), m_out);
    m_buffer.clear();
    std::fflush(m_out);
}

void ActivityTrace::format(const ActivityHop &hop, std::string &line)
{
    line += "{\"time\":";
    char number[24];
    line.append(number, std::size_t(std::snprintf(number, sizeof number, "%lld",
                                                  static_cast<long long>(hop.msecs))));
    line += ",\"rack\":";
    append_json(line, hop.rack ? hop.rack->name_utf8() : QByteArray());
    line += ",\"node\":";
    const NodeInstance *instance = hop.node->instance();
    append_json(line, instance ? instance->instance_name().toUtf8() : QByteArray());
    line += ",\"event\":{";
    const EventData &data = hop.event->data();
    for (qsizetype i = 0; i < data.count(); ++i) {
        if (i)
            line += ',';
        append_json(line, *data.key_at(i));
        line += ':';
        append_json(line, *data.value_at(i));
    }
    line += "}}\n";
}

void ActivityTrace::hop(const ActivityHop &hop)
{
    format(hop, m_buffer);
    if (m_buffer.size() >= 64 * 1024 || !QCoreApplication::instance()) {
        std::fwrite(m_buffer.data(), 1, m_buffer.size(), m_out);
        m_buffer.clear();
    }
    if (m_flush_queued || !QCoreApplication::instance())
        return;
    m_flush_queued = true;
    QTimer::singleShot(0, m_flusher.get(), [this] { flush(); });
}

} // namespace corv::engine
