#include "nodes/node_support.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace corv::nodes {

namespace {
corv_plugin *g_plugin = nullptr;
}

corv_plugin *plugin()
{
    return g_plugin;
}

void set_plugin(corv_plugin *plugin)
{
    g_plugin = plugin;
}

void post_to_children(corv_node *node, corv_event *event)
{
    corv_event_post(corv_node_child_sink(node), event);
    corv_event_destroy(event);
}

void post_to_parent(corv_node *node, corv_event *event)
{
    corv_event_post(corv_node_parent_sink(node), event);
    corv_event_destroy(event);
}

void pass_on(void *data, corv_event *event)
{
    post_to_parent(node_of(data), event);
}

void drop(void *, corv_event *event)
{
    corv_event_destroy(event);
}

void write_name(char *buffer, const char *text)
{
    std::size_t length = text ? std::strlen(text) : 0;
    if (length > CORV_TEXT_SIZE - 1) {
        length = CORV_TEXT_SIZE - 1;
        // Back off over continuation bytes to the start of the cut sequence.
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
            --length;
    }
    if (length)
        std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

void write_name(char *buffer, const QByteArray &text)
{
    write_name(buffer, text.constData());
}

int to_milliseconds(double seconds)
{
    const double ms = std::trunc(seconds * 1000.0);
    if (!(ms > 0.0)) // also NaN
        return 0;
    return ms >= double(INT_MAX) ? INT_MAX : int(ms);
}

} // namespace corv::nodes
