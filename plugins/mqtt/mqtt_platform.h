/*
 * The few things the MQTT plugin does through the system rather than
 * libmosquitto or the SDK: mqtt_platform_unix.c and mqtt_platform_windows.c.
 */
#ifndef MQTT_PLATFORM_H
#define MQTT_PLATFORM_H

#include <stdbool.h>
#include <stddef.h>

/* The machine's host name in out (size bytes, cut to fit); false when the
 * system has none to give. */
bool mqtt_host_name(char *out, size_t size);

/* The system's text for an error number libmosquitto left in errno after
 * MOSQ_ERR_ERRNO (on Windows that may be a Winsock code), in out (size bytes). */
void mqtt_error_text(int error, char *out, size_t size);

/* Lets only the user read and write the file at path; create makes it, empty,
 * when it doesn't exist yet, so it is never there for others to read. */
void mqtt_make_user_only(const char *path, bool create);

#endif
