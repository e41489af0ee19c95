/*
 * The JSON of MQTT payloads: events go out as one flat object of string
 * members; what comes in is read as one object whose top-level members become
 * event keys. Plain C99, no SDK calls, so the code can be checked on its own.
 */
#ifndef MQTT_JSON_H
#define MQTT_JSON_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A growing, zero-terminated byte buffer. A failed allocation sets failed and
 * makes every later append a no-op. */
typedef struct mqtt_buffer {
    char *data;
    size_t size;
    size_t capacity;
    int failed;
} mqtt_buffer;

void mqtt_buffer_append(mqtt_buffer *buffer, const char *bytes, size_t size);
void mqtt_buffer_free(mqtt_buffer *buffer);

/* The writer of one object: mqtt_json_begin, any number of members, mqtt_json_end. */
void mqtt_json_begin(mqtt_buffer *buffer);
/* One member with a string value; key and value are UTF-8, escaped as needed. */
void mqtt_json_member(mqtt_buffer *buffer, const char *key, const char *value);
void mqtt_json_end(mqtt_buffer *buffer);

/* Called once per top-level member, in document order, with the key and value
 * as zero-terminated texts: a string's value unescaped, any other value
 * (number, true, false, null, a nested object or array) as its JSON text. */
typedef void (*mqtt_json_member_fn)(void *user, const char *key, const char *value);

/* Reads text (size bytes, need not be zero-terminated) as one JSON object with
 * nothing but white space around it. Returns the number of members, or -1
 * when the text is not such an object (or nests deeper than 256 levels);
 * then member was never called: a document is taken whole or not at all. */
long mqtt_json_read_object(const char *text, size_t size, mqtt_json_member_fn member, void *user);

#ifdef __cplusplus
}
#endif

#endif /* MQTT_JSON_H */
