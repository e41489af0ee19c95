#define _POSIX_C_SOURCE 200809L

#include "mqtt_platform.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

bool mqtt_host_name(char *out, size_t size)
{
    if (size < 2 || gethostname(out, size - 1) != 0) {
        if (size)
            out[0] = '\0';
        return false;
    }
    out[size - 1] = '\0';
    return out[0] != '\0';
}

void mqtt_error_text(int error, char *out, size_t size)
{
    snprintf(out, size, "%s", strerror(error));
}

void mqtt_make_user_only(const char *path, bool create)
{
    const int fd = open(path, O_WRONLY | (create ? O_CREAT : 0), S_IRUSR | S_IWUSR);
    if (fd < 0)
        return;
    fchmod(fd, S_IRUSR | S_IWUSR);
    close(fd);
}
