/* A stand-in for the program that an update replaces, the same on every
 * platform (plain C, no libraries to carry along):
 *   stand_in               copies "version.txt" beside it into "ran.txt" there
 *   stand_in --touch NAME  creates NAME in the working folder (a run step)
 *   stand_in --fail        exits with 1 (a run step that fails)
 */
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--fail") == 0)
        return 1;
    if (argc == 3 && strcmp(argv[1], "--touch") == 0) {
        FILE *file = fopen(argv[2], "wb");
        return file && fclose(file) == 0 ? 0 : 1;
    }
    /* The folder of the program, from the path it was started with. */
    char folder[4096];
    snprintf(folder, sizeof folder, "%s", argv[0]);
    char *slash = strrchr(folder, '/');
    char *backslash = strrchr(folder, '\\');
    if (backslash && (!slash || backslash > slash))
        slash = backslash;
    if (slash)
        slash[1] = '\0';
    else
        folder[0] = '\0';

    char path[4200];
    char version[256] = "";
    snprintf(path, sizeof path, "%sversion.txt", folder);
    FILE *in = fopen(path, "rb");
    if (!in)
        return 2;
    const size_t length = fread(version, 1, sizeof version - 1, in);
    fclose(in);
    snprintf(path, sizeof path, "%sran.txt", folder);
    FILE *out = fopen(path, "wb");
    if (!out || fwrite(version, 1, length, out) != length)
        return 3;
    return fclose(out) == 0 ? 0 : 3;
}
