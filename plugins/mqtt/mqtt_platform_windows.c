#include "mqtt_platform.h"

#include <stdio.h>
#include <string.h>
#include <windows.h>

bool mqtt_host_name(char *out, size_t size)
{
    /* The name the machine goes by in DNS, as gethostname gives it, without
     * needing Winsock started. */
    DWORD length = size > 0x7fffffff ? 0x7fffffff : (DWORD)size;
    if (size == 0)
        return false;
    if (!GetComputerNameExA(ComputerNameDnsHostname, out, &length)) {
        out[0] = '\0';
        return false;
    }
    return out[0] != '\0';
}

void mqtt_error_text(int error, char *out, size_t size)
{
    /* Winsock's codes start at 10000; below are the C library's. */
    DWORD length;
    if (error < 10000) {
        snprintf(out, size, "%s", strerror(error));
        return;
    }
    length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, NULL,
                            (DWORD)error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), out,
                            size > 0xffff ? 0xffff : (DWORD)size, NULL);
    /* Without its line break and full stop, as strerror gives it. */
    while (length && (out[length - 1] == '\n' || out[length - 1] == '\r' ||
                      out[length - 1] == '.' || out[length - 1] == ' '))
        out[--length] = '\0';
    if (!length)
        snprintf(out, size, "error %d", error);
}

void mqtt_make_user_only(const char *path, bool create)
{
    /* The file lives in the plugin's data folder under the user's profile,
     * whose inherited access list already leaves out other users. */
    (void)path;
    (void)create;
}
