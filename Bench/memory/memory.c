/*
 * Loads GLib and libxml2, has a configuration read, and prints how much memory is resident then and how much
 * of that is not the content of files, in KiB: in one build through the started library, in the other without
 * it.
 */
#include <glib.h>
#include <libxml/parser.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef WITH_ZOL
#    include <zol/zol.h>

static int start(const char *configuration)
{
    return zol_init(configuration) == KIV_OK;
}
#else
static int start(const char *configuration)
{
    return xmlReadFile(configuration, NULL, XML_PARSE_RECOVER | XML_PARSE_NOBLANKS | XML_PARSE_NONET) != NULL;
}
#endif

/* A figure of the process that is counted page by page, unlike those in status and statm. */
static long kib(const char *figure)
{
    long value = -1;
    char line[128];
    FILE *const file = fopen("/proc/self/smaps_rollup", "r");
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        if (strncmp(line, figure, strlen(figure)) == 0)
            value = strtol(line + strlen(figure), NULL, 10);
    }
    if (file != NULL)
        fclose(file);
    return value;
}

int main(int argc, char **argv)
{
    if (argc != 2 || glib_check_version(2, 0, 0) != NULL || !start(argv[1]))
        return 1;
    const long resident = kib("Rss:");
    const long anonymous = kib("Anonymous:");
    printf("%ld %ld\n", resident, anonymous);
    return resident > 0 && anonymous > 0 ? 0 : 1;
}
