#include "files.h"

#include "openssl.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace eu {

namespace {

class descriptor {
public:
    explicit descriptor(int opened) : number(opened) {}
    ~descriptor() {
        if (number >= 0) {
            ::close(number);
        }
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    explicit operator bool() const { return number >= 0; }

    // Closes now, so that a late write error shows.
    bool close() { return ::close(std::exchange(number, -1)) == 0; }

    int number;
};

// A name that is taken back unless the file was renamed.
class temporary_file {
public:
    explicit temporary_file(const std::string& folder) : name(folder + ".signature.XXXXXX") {}
    ~temporary_file() {
        if (made) {
            ::unlink(name.c_str());
        }
    }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;

    int create() {
        const int opened = ::mkostemp(name.data(), O_CLOEXEC);
        made = opened >= 0;
        return opened;
    }

    bool renameTo(const std::string& path) {
        const bool done = ::rename(name.c_str(), path.c_str()) == 0;
        made = made && !done;
        return done;
    }

private:
    std::string name;
    bool made = false;
};

void writeAll(int file, view contents) {
    while (!contents.empty()) {
        const ssize_t written = ::write(file, contents.data(), contents.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        require(written > 0, EU_ERROR_FILE_WRITE);
        contents = contents.subspan(static_cast<std::size_t>(written));
    }
}

// The permissions that the file at the path has, or that a new file gets.
mode_t permissionsFor(const std::string& path) {
    struct stat present {};
    if (::stat(path.c_str(), &present) == 0) {
        return present.st_mode & 07777;
    }
    const mode_t mask = ::umask(0); // there is no other way to ask
    ::umask(mask);
    return 0666 & ~mask;
}

// The path behind links, so that a rename replaces the file and not the link.
std::string resolved(const char* path) {
    const std::unique_ptr<char, released_by<std::free>> real(::realpath(path, nullptr));
    return real ? real.get() : path;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

} // namespace

bytes fileDigest(const char* path) {
    // O_NONBLOCK: a pipe without a writer is to be refused, not waited for.
    const descriptor file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat present {};
    require(
        file && ::fstat(file.number, &present) == 0 && S_ISREG(present.st_mode),
        EU_ERROR_FILE_READ);

    const auto hash = taken<owned<EVP_MD_CTX, EVP_MD_CTX_free>>(EVP_MD_CTX_new());
    succeed(EVP_DigestInit_ex(hash.get(), EVP_sha256(), nullptr));
    bytes piece(std::size_t{256} * 1024);
    ssize_t count = 0;
    do {
        count = ::read(file.number, piece.data(), piece.size());
        if (count > 0) {
            succeed(EVP_DigestUpdate(hash.get(), piece.data(), static_cast<std::size_t>(count)));
        }
    } while (count > 0 || (count < 0 && errno == EINTR));
    require(count == 0, EU_ERROR_FILE_READ);

    bytes digest(static_cast<std::size_t>(EVP_MD_get_size(EVP_sha256())));
    succeed(EVP_DigestFinal_ex(hash.get(), digest.data(), nullptr));
    return digest;
}

void checkTarget(const char* target, const char* source) {
    struct stat there {};
    struct stat data {};
    if (::lstat(target, &there) != 0) {
        return;
    }
    require(::stat(target, &there) == 0, EU_ERROR_FILE_WRITE); // not a link to nowhere
    const bool same =
        ::stat(source, &data) == 0 && there.st_dev == data.st_dev && there.st_ino == data.st_ino;
    require(S_ISREG(there.st_mode) && !same, EU_ERROR_FILE_WRITE);
}

void replaceFile(const char* path, view contents) {
    const std::string target = resolved(path);
    temporary_file temporary(folderOf(target));
    descriptor file(temporary.create());
    require(static_cast<bool>(file), EU_ERROR_FILE_WRITE);
    writeAll(file.number, contents);
    require(
        ::fchmod(file.number, permissionsFor(target)) == 0 && ::fsync(file.number) == 0 &&
            file.close() && temporary.renameTo(target),
        EU_ERROR_FILE_WRITE);
    // The signature is in place; a folder that cannot be synced does not undo it.
    const descriptor folder(::open(folderOf(target).c_str(), O_RDONLY | O_CLOEXEC));
    if (folder) {
        ::fsync(folder.number);
    }
}

} // namespace eu
