#include <orlek/fsutils.h>

#include <orlek/descriptor.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <limits>
#include <span>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Orlek::descriptor;

// Opens a file for reading or writing. Never waits for the other end of a FIFO or a device.
descriptor openFile(const char* path, int flags, mode_t mode = 0) {
    return descriptor(open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
}

} // namespace

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
