/*
 * Preloaded into the agent of a test: paths that the module has fixed lead to
 * files of the test. KAVPLAT_TEST_REDIRECT is a list of FROM=TO, each with a
 * colon behind it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

/* What the agent starts in turn (a shell, kill) is nobody's test. */
__attribute__((constructor)) static void keep_to_this_process(void)
{
    unsetenv("LD_PRELOAD");
}

static const char *redirected(const char *path, char *buffer, size_t size)
{
    const char *list = getenv("KAVPLAT_TEST_REDIRECT");
    const size_t length = path != NULL ? strlen(path) : 0;
    while (list != NULL && length != 0 && *list != '\0') {
        const char *end = strchr(list, ':');
        if (end == NULL) {
            break;
        }
        if (strncmp(list, path, length) == 0 && list[length] == '=') {
            const char *to = list + length + 1;
            snprintf(buffer, size, "%.*s", (int)(end - to), to);
            return buffer;
        }
        list = end + 1;
    }
    return path;
}

__attribute__((visibility("default"))) int stat(const char *restrict path,
                                                struct stat *restrict status)
{
    char buffer[4096];
    return fstatat(-100 /* AT_FDCWD */, redirected(path, buffer, sizeof buffer), status, 0);
}

__attribute__((visibility("default"))) FILE *fopen(const char *restrict path,
                                                   const char *restrict mode)
{
    FILE *(*real)(const char *, const char *);
    char buffer[4096];
    *(void **)&real = dlsym(RTLD_NEXT, "fopen");
    return real(redirected(path, buffer, sizeof buffer), mode);
}
