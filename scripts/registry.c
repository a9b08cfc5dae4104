// Loaded before the libraries of a program: p11-kit, which has no setting for it, finds the modules
// registered in $VELMORA_MODULES and none of the machine's.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static const char packaged[] = "/usr/share/p11-kit/modules";
static const char configured[] = "/etc/pkcs11/";

static const char* found_at(const char* path, char room[PATH_MAX]) {
    const char* modules = getenv("VELMORA_MODULES");
    if (modules == NULL || path == NULL) {
        return path;
    }
    if (strncmp(path, configured, sizeof configured - 1) == 0) {
        return "/nonexistent";
    }
    if (strncmp(path, packaged, sizeof packaged - 1) != 0) {
        return path;
    }
    snprintf(room, PATH_MAX, "%s%s", modules, path + sizeof packaged - 1);
    return room;
}

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    char room[PATH_MAX];
    return openat(AT_FDCWD, found_at(path, room), flags, mode);
}

DIR* opendir(const char* path) {
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    return folder < 0 ? NULL : fdopendir(folder);
}

int stat(const char* path, struct stat* status) {
    char room[PATH_MAX];
    return fstatat(AT_FDCWD, found_at(path, room), status, 0);
}
