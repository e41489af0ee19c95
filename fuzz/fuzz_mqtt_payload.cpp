// Feeds arbitrary bytes to the MQTT plugin's payload reader (what any client
// on the broker may send). Besides crashes it checks that a payload is taken
// whole or not at all, and that the members it reads, written out again by
// the plugin's writer, read back unchanged.
#include "fuzz/fuzz_support.h"

#include "mqtt_json.h"

#include <QByteArrayList>

#include <cstddef>
#include <cstdint>

using corv::fuzz::broken;

namespace {

void collect(void *user, const char *key, const char *value)
{
    auto *members = static_cast<QByteArrayList *>(user);
    members->append(key);
    members->append(value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    QByteArrayList members;
    const long count = mqtt_json_read_object(bytes.constData(), size, collect, &members);
    if (count < 0 ? !members.isEmpty() : members.size() != 2 * count)
        broken("members and the count differ", bytes);
    if (count < 0)
        return 0;
    mqtt_buffer buffer = {};
    mqtt_json_begin(&buffer);
    for (qsizetype i = 0; i + 1 < members.size(); i += 2)
        mqtt_json_member(&buffer, members[i].constData(), members[i + 1].constData());
    mqtt_json_end(&buffer);
    QByteArrayList again;
    if (buffer.failed ||
        mqtt_json_read_object(buffer.data, buffer.size, collect, &again) != count ||
        again != members)
        broken("written members do not read back", bytes);
    mqtt_buffer_free(&buffer);
    return 0;
}
