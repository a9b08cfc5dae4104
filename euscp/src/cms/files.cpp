#include "cms/files.h"

#include "openssl.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace eu {

namespace {

// A new file in a folder, which is taken back unless it was renamed.
class temporary_file {
public:
    temporary_file(const descriptor& into, mode_t mode)
        : folder(into), name(".signature." + unforeseen()),
          file(::openat(
              folder.get(),
              name.c_str(),
              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
              mode)),
          made(file) {}
    ~temporary_file() {
        if (made) {
            ::unlinkat(folder.get(), name.c_str(), 0);
        }
    }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;

    [[nodiscard]] bool write(view contents) const {
        while (!contents.empty()) {
            const ssize_t written = ::write(file.get(), contents.data(), contents.size());
            if (written > 0) {
                contents = contents.subspan(static_cast<std::size_t>(written));
            } else if (written == 0 || errno != EINTR) {
                return false;
            }
        }
        return true;
    }

    [[nodiscard]] bool give(mode_t mode) const { return ::fchmod(file.get(), mode) == 0; }

    bool renameTo(const std::string& other) {
        const bool done = ::fsync(file.get()) == 0 && file.close() &&
                          ::renameat(folder.get(), name.c_str(), folder.get(), other.c_str()) == 0;
        made = made && !done;
        return done;
    }

private:
    static std::string unforeseen() {
        return std::to_string(::arc4random()) + std::to_string(::arc4random());
    }

    const descriptor& folder;
    const std::string name;
    descriptor file;
    bool made;
};

std::string textOf(const descriptor& link) {
    std::array<char, PATH_MAX> text{};
    const ssize_t length = ::readlinkat(link.get(), "", text.data(), text.size());
    require(length > 0, EU_ERROR_FILE_WRITE);
    return {text.data(), static_cast<std::size_t>(length)};
}

bool isSame(const struct timespec& one, const struct timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

} // namespace

// O_NONBLOCK: a pipe without a writer is to be refused, not waited for.
data_file::data_file(const char* path)
    : file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
    require(
        file && ::fstat(file.get(), &before) == 0 && S_ISREG(before.st_mode),
        EU_ERROR_FILE_READ);
}

bytes data_file::digest() const {
    const auto hash = taken<owned<EVP_MD_CTX, EVP_MD_CTX_free>>(EVP_MD_CTX_new());
    succeed(EVP_DigestInit_ex(hash.get(), EVP_sha256(), nullptr));
    // No larger than the file: what is made is also wiped, and small files are signed most.
    constexpr off_t least = 4096;
    constexpr off_t most = off_t{256} * 1024;
    bytes piece(static_cast<std::size_t>(std::clamp(before.st_size, least, most)));
    ssize_t count = 0;
    do {
        count = ::read(file.get(), piece.data(), piece.size());
        if (count > 0) {
            succeed(EVP_DigestUpdate(hash.get(), piece.data(), static_cast<std::size_t>(count)));
        }
    } while (count > 0 || (count < 0 && errno == EINTR));
    require(count == 0, EU_ERROR_FILE_READ);

    struct stat after {};
    require(::fstat(file.get(), &after) == 0, EU_ERROR_FILE_READ);
    require(
        after.st_size == before.st_size && isSame(after.st_mtim, before.st_mtim) &&
            isSame(after.st_ctim, before.st_ctim),
        EU_ERROR_FILE_CHANGED);

    bytes digest(static_cast<std::size_t>(EVP_MD_get_size(EVP_sha256())));
    succeed(EVP_DigestFinal_ex(hash.get(), digest.data(), nullptr));
    return digest;
}

bool data_file::is(const struct stat& other) const {
    return other.st_dev == before.st_dev && other.st_ino == before.st_ino;
}

signature_file::signature_file(std::string path, const data_file& data) {
    constexpr int max_links = 40; // as many as the kernel follows
    int links = 0;
    while (enter(path)) {
        require(++links <= max_links, EU_ERROR_FILE_LINK);
    }
    require(present.st_mode != 0 || links == 0, EU_ERROR_FILE_LINK);
    require(present.st_mode == 0 || S_ISREG(present.st_mode), EU_ERROR_FILE_TYPE);
    require(present.st_mode == 0 || !data.is(present), EU_ERROR_FILE_SAME);
}

// Opens the folder of a path that starts in the folder so far, and looks at what is there. If that
// is a link, tells so, and the path becomes the link's.
bool signature_file::enter(std::string& path) {
    const std::size_t end = path.rfind('/') + 1; // 0 if there is none
    const std::string through = end > 0 ? path.substr(0, end) : ".";
    const int from = folder ? folder.get() : AT_FDCWD;
    struct stat around {};
    folder = descriptor(::openat(from, through.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    require(folder && ::fstat(folder.get(), &around) == 0, EU_ERROR_FILE_WRITE);

    name = end > 0 && end == path.size() ? "." : path.substr(end);
    const descriptor entry(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    present = {};
    require(entry ? ::fstat(entry.get(), &present) == 0 : errno == ENOENT, EU_ERROR_FILE_WRITE);
    if (!S_ISLNK(present.st_mode)) {
        return false;
    }
    require(present.st_uid == ::geteuid() || present.st_uid == around.st_uid, EU_ERROR_FILE_LINK);
    path = textOf(entry);
    return true;
}

void signature_file::replace(view contents) const {
    const bool own = present.st_mode != 0 && present.st_uid == ::geteuid();
    const mode_t mode = own ? present.st_mode & 0777 : 0666; // less the umask if it is new
    temporary_file temporary(folder, mode);
    require(
        temporary.write(contents) && (!own || temporary.give(mode)) && temporary.renameTo(name),
        EU_ERROR_FILE_WRITE);
    // The signature is in place; a folder that cannot be synced does not undo it.
    const descriptor synced(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (synced) {
        ::fsync(synced.get());
    }
}

} // namespace eu
