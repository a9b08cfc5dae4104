#include <orlek/fsutils.h>

#include <orlek/descriptor.h>
#include <orlek/log.h>

#include <algorithm>
#include <alloca.h>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using Orlek::descriptor;
using Orlek::log_failure;

constexpr std::size_t path_size = 4096; // the terminator included
constexpr std::size_t max_path_length = path_size - 1;

} // namespace

// ---- directory creation ----

namespace {

bool isDirectory(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

// After a failed mkdir of `path`: cuts component after component off its end until what is left is
// a directory, found or made. `pos` is where the path is cut.
bool climb(mode_t mode, char* path, std::size_t& pos) {
    do {
        if (errno == EEXIST) {
            return isDirectory(path);
        }
        const auto cut = std::string_view(path, pos).rfind('/');
        if (errno != ENOENT || cut == 0) {
            return false;
        }
        pos = cut;
        path[pos] = '\0';
    } while (mkdir(path, mode) != 0);
    return true;
}

// Makes the directories that climb() cut off, one after the other.
bool descend(mode_t mode, char* path, std::size_t& pos, std::size_t len) {
    while (pos < len) {
        path[pos] = '/';
        pos += std::strlen(path + pos);
        if (mkdir(path, mode) != 0 && (errno != EEXIST || !isDirectory(path))) {
            return false;
        }
    }
    return true;
}

// Makes an absolute path, and works in it: it holds its own bytes again on every return.
int fsutils_mkdir_r(mode_t mode, char* path, std::size_t len) {
    if (mkdir(path, mode) == 0) {
        return 0;
    }
    auto pos = len;
    const bool made = climb(mode, path, pos) && descend(mode, path, pos, len);
    std::replace(path + pos, path + len, '\0', '/');
    return made ? 0 : fsutils_failed;
}

} // namespace

int fsutils_create_dir_r(mode_t mode, const char* path) {
    if (path == nullptr || path[0] != '/') {
        return fsutils_failed;
    }
    const auto len = std::strlen(path);
    if (len > max_path_length) {
        return fsutils_failed;
    }
    auto* copy = static_cast<char*>(alloca(len + 1));
    std::memcpy(copy, path, len + 1);
    return fsutils_mkdir_r(mode, copy, len);
}

// ---- removal ----

namespace {

struct close_directory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using directory_stream = std::unique_ptr<DIR, close_directory>;

// Opens a directory to list it. `links` is O_NOFOLLOW to refuse a symbolic link, also one that is
// written with a slash at its end, or 0 to follow it.
directory_stream openDirectory(char* path, std::size_t len, int links) {
    auto end = len;
    while (links == O_NOFOLLOW && end > 1 && path[end - 1] == '/') {
        --end;
    }
    const char cut = std::exchange(path[end], '\0');
    descriptor file(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | links));
    path[end] = cut;
    directory_stream directory(file ? fdopendir(file.get()) : nullptr);
    if (directory) {
        file.release();
    }
    return directory;
}

// Returns the next entry but "." and "..", or null: at the end with errno 0.
const dirent* nextEntry(DIR* directory) {
    const dirent* entry = nullptr;
    do {
        errno = 0;
        entry = readdir(directory);
    } while (entry != nullptr &&
             (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0));
    return entry;
}

int _T_rm_r(char* buffer, std::size_t len);

// Removes one entry of the directory whose path is the `len` bytes in `buffer`. Logs as `caller`.
int removeEntry(char* buffer, std::size_t len, const char* name, const char* caller) {
    const auto nameLen = std::strlen(name);
    buffer[len] = '/';
    std::memcpy(buffer + len + 1, name, nameLen + 1);
    const int code = _T_rm_r(buffer, len + 1 + nameLen);
    if (code != 0) {
        LogWrite(__FILE__, __LINE__, caller, log_failure, "fail: rm <%s>", buffer);
    }
    buffer[len] = '\0';
    return code;
}

// Removes all entries of that directory; `buffer` has path_size bytes and holds its path again
// afterwards. Logs as the function `caller`, whose work this is.
int removeEntries(char* buffer, std::size_t len, int links, const char* caller) {
    const auto directory = openDirectory(buffer, len, links);
    if (!directory) {
        LogWrite(
            __FILE__,
            __LINE__,
            caller,
            log_failure,
            "fail: opendir <%s> (%s)",
            buffer,
            std::strerror(errno));
        return fsutils_failed;
    }
    int code = 0;
    while (const auto* entry = nextEntry(directory.get())) {
        const auto size = len + 1 + std::strlen(entry->d_name) + 1;
        if (size > path_size) {
            LogWrite(
                __FILE__,
                __LINE__,
                caller,
                log_failure,
                "fail: path is too long (size:%zu, max-size:%zu)",
                size,
                path_size);
            code = fsutils_name_too_long;
            continue;
        }
        if (const int failure = removeEntry(buffer, len, entry->d_name, caller); failure != 0) {
            return failure;
        }
    }
    if (errno != 0) {
        LogWrite(
            __FILE__,
            __LINE__,
            caller,
            log_failure,
            "fail: readdir <%s> (%s)",
            buffer,
            std::strerror(errno));
        return fsutils_failed;
    }
    return code;
}

// Removes what the `len` bytes in `buffer` name. There is one buffer for the whole tree: a call
// extends the path in it and cuts it back.
int _T_rm_r(char* buffer, std::size_t len) {
    if (unlink(buffer) == 0) {
        return 0;
    }
    // A link that cannot be unlinked must not lead the removal into what it points to.
    const int code = removeEntries(buffer, len, O_NOFOLLOW, __func__);
    if (code != 0) {
        return code;
    }
    if (rmdir(buffer) != 0) {
        LogWrite(ORLEK_HERE, log_failure, "fail: rmdir <%s> (%s)", buffer, std::strerror(errno));
        return fsutils_failed;
    }
    return 0;
}

} // namespace

int fsutils_rm_r(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        return fsutils_unsuitable;
    }
    const auto len = std::strlen(path);
    if (len > max_path_length) {
        return fsutils_name_too_long;
    }
    char buffer[path_size];
    std::memcpy(buffer, path, len + 1);
    return _T_rm_r(buffer, len);
}

int fsutils_clear_dir(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        LogWrite(ORLEK_HERE, log_failure, "fail: path is not provided");
        return fsutils_unsuitable;
    }
    const auto len = std::strlen(path);
    if (len > max_path_length) {
        LogWrite(
            ORLEK_HERE,
            log_failure,
            "fail: path is too long (size:%zu, max-size:%zu)",
            len + 1,
            path_size);
        return fsutils_name_too_long;
    }
    char buffer[path_size];
    std::memcpy(buffer, path, len + 1);
    return removeEntries(buffer, len, 0, __func__);
}
