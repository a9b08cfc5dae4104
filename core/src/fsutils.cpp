#include <orlek/fsutils.h>

#include <orlek/descriptor.h>
#include <orlek/log.h>

#include <algorithm>
#include <alloca.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using Orlek::descriptor;
using Orlek::log_failure;

constexpr std::size_t path_size = 4096; // the terminator included
constexpr std::size_t max_path_length = path_size - 1;

// Opens a file for reading or writing. Never waits for the other end of a FIFO or a device.
descriptor openFile(const char* path, int flags, mode_t mode = 0) {
    return descriptor(open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
}

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

// ---- copy ----

namespace {

constexpr off_t max_piece = 0x100000;

// Both files of a copy, with what the source was like when they were opened.
struct copy_files {
    descriptor source;
    descriptor target;
    mode_t mode = 0;
    off_t size = 0;
};

int statCode(int error) {
    switch (error) {
    case EACCES:
        return fsutils_access_denied;
    case ENAMETOOLONG:
        return fsutils_name_too_long;
    case ENOMEM:
        return fsutils_no_memory;
    default:
        return fsutils_failed;
    }
}

int openCode(int error) {
    return error == EOVERFLOW ? fsutils_name_too_long : statCode(error);
}

int openTargetCode(int error) {
    switch (error) {
    case EROFS:
        return fsutils_access_denied;
    case EISDIR:
        return fsutils_unsuitable;
    default:
        return openCode(error);
    }
}

// A target may be missing; else it must be a regular file other than the source.
int checkTarget(const char* dst, const struct stat& source) {
    struct stat target {};
    if (stat(dst, &target) != 0) {
        return errno == ENOENT ? 0 : statCode(errno);
    }
    const bool same = target.st_dev == source.st_dev && target.st_ino == source.st_ino;
    return S_ISREG(target.st_mode) && !same ? 0 : fsutils_unsuitable;
}

int _T_file_copy_prepare(const char* src, const char* dst, copy_files& files) {
    struct stat source {};
    if (stat(src, &source) != 0) {
        return errno == ENOENT ? fsutils_not_found : statCode(errno);
    }
    if (!S_ISREG(source.st_mode)) {
        return fsutils_unsuitable;
    }
    if (const int code = checkTarget(dst, source); code != 0) {
        return code;
    }
    files.source = openFile(src, O_RDONLY);
    if (!files.source) {
        return errno == ENOENT ? fsutils_not_found : openCode(errno);
    }
    files.target = openFile(dst, O_WRONLY | O_CREAT, source.st_mode & 0777);
    if (!files.target) {
        return openTargetCode(errno);
    }
    files.mode = source.st_mode & 07777;
    files.size = source.st_size;
    return 0;
}

ssize_t sendPiece(const copy_files& files, off_t& offset) {
    const auto count = static_cast<std::size_t>(std::min(files.size - offset, max_piece));
    ssize_t sent = 0;
    do {
        sent = sendfile(files.target.get(), files.source.get(), &offset, count);
    } while (sent < 0 && (errno == EAGAIN || errno == EINTR));
    return sent;
}

bool copyContent(const copy_files& files) {
    off_t offset = 0;
    do {
        const auto sent = sendPiece(files, offset);
        const bool shrank = sent == 0 && offset < files.size;
        if (sent < 0 || shrank) {
            return false;
        }
    } while (offset < files.size);
    return true;
}

} // namespace

int fsutils_cp(const char* src, const char* dst) {
    if (src == nullptr || dst == nullptr) {
        return fsutils_unsuitable;
    }
    copy_files files;
    if (const int code = _T_file_copy_prepare(src, dst, files); code != 0) {
        return code;
    }
    // A longer file that stood there loses its tail only once all bytes have come.
    const bool done = copyContent(files) && ftruncate(files.target.get(), files.size) == 0 &&
                      fchmod(files.target.get(), files.mode) == 0;
    files = {};
    if (!done) {
        unlink(dst);
        return fsutils_failed;
    }
    return 0;
}

// ---- frames ----

namespace {

constexpr std::int64_t max_frame_size = std::numeric_limits<std::int32_t>::max();

// Reads one row of `count` bytes into the front of `room` and takes them off it. A row's end that
// has no room is not read.
bool readRow(int file, std::span<std::uint8_t>& room, int count, std::int64_t offset) {
    const auto row = room.first(std::min(static_cast<std::size_t>(count), room.size()));
    ssize_t got = 0;
    do {
        got = pread(file, row.data(), row.size(), offset);
    } while (got < 0 && errno == EINTR);
    room = room.subspan(row.size());
    return got == static_cast<ssize_t>(row.size());
}

// Reads the rows `y` up to, not including, `endRow` of the plane at the file's start.
bool readPixels(
    int file,
    std::span<std::uint8_t> room,
    int frameWidth,
    int x,
    int y,
    int w,
    int endRow) {
    for (int row = y; row < endRow; ++row) {
        if (!readRow(file, room, w, std::int64_t{row} * frameWidth + x)) {
            return false;
        }
    }
    return true;
}

} // namespace

int fsutils_load_i420(
    std::uint8_t* buffer,
    std::size_t* size,
    const char* path,
    std::uint16_t frameWidth,
    std::uint16_t frameHeight,
    std::uint16_t x,
    std::uint16_t y,
    std::uint16_t w,
    std::uint16_t h) {
    const auto file = openFile(path, O_RDONLY);
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0) {
        return fsutils_failed;
    }
    const auto pixels = std::size_t{w} * h;
    *size = pixels * 3 / 2;

    const auto framePixels = std::int64_t{frameWidth} * frameHeight;
    const auto frameSize = framePixels * 3 / 2;
    if (info.st_size != frameSize || frameSize > max_frame_size || x + w > frameWidth ||
        y + h > frameHeight) {
        return fsutils_failed;
    }
    const std::span all(buffer, *size);
    if (!readPixels(file.get(), all.first(pixels), frameWidth, x, y, w, y + h)) {
        return fsutils_failed;
    }
    auto uRoom = all.subspan(pixels, pixels / 4);
    auto vRoom = all.subspan(pixels + pixels / 4);
    for (int row = y / 2; row < (y + h) / 2; ++row) {
        const auto offset = std::int64_t{row} * (frameWidth / 2) + x / 2;
        if (!readRow(file.get(), uRoom, w / 2, framePixels + offset) ||
            !readRow(file.get(), vRoom, w / 2, framePixels * 5 / 4 + offset)) {
            return fsutils_failed;
        }
    }
    return 0;
}

int fsutils_load_mono8(
    std::uint8_t* buffer,
    std::size_t* size,
    const char* path,
    std::uint16_t frameWidth,
    std::uint16_t /*frameHeight*/,
    std::uint16_t x,
    std::uint16_t y,
    std::uint16_t w,
    std::uint16_t h) {
    const auto file = openFile(path, O_RDONLY);
    if (!file) {
        return fsutils_failed;
    }
    *size = std::size_t{w} * h;
    const int endRow = y + h;
    if (x + w > frameWidth || endRow > std::numeric_limits<std::uint16_t>::max() ||
        std::int64_t{endRow} * frameWidth > max_frame_size) {
        return fsutils_failed;
    }
    const bool read = readPixels(file.get(), {buffer, *size}, frameWidth, x, y, w, endRow);
    return read ? 0 : fsutils_failed;
}
