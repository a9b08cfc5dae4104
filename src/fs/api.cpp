#include "fs/api.h"

#include "fs/new_archive.h"
#include "fs/target.h"

#include <orlek/descriptor.h>
#include <orlek/errors.h>
#include <orlek/fsutils.h>
#include <orlek/log.h>
#include <orlek/released_with.h>
#include <orlek/text.h>

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace Orlek::Support::Velmora::Fs {

namespace {

using stdio_file = std::unique_ptr<std::FILE, released_with<std::fclose>>;

// libzip, loaded with the first archive: the other commands do without it and all that it needs.
struct zip_library {
    decltype(&zip_open) open;
    decltype(&zip_source_buffer) source_buffer;
    decltype(&zip_source_free) source_free;
    decltype(&zip_file_add) file_add;
    decltype(&zip_file_set_external_attributes) file_set_external_attributes;
    decltype(&zip_close) close;
    decltype(&zip_discard) discard;
    decltype(&zip_strerror) strerror;
};

using zip_archive = std::unique_ptr<zip_t, decltype(&zip_discard)>;
using zip_data = std::unique_ptr<zip_source_t, decltype(&zip_source_free)>;

// The stream of an open file. Null, with errno set, if there is none.
stdio_file streamOf(descriptor file, const char* mode) {
    stdio_file stream(file ? fdopen(file.get(), mode) : nullptr);
    if (stream) {
        file.release();
    }
    return stream;
}

// As fopen with mode "rb", but opening a pipe that nobody writes to does not wait.
stdio_file openForReading(const char* path) {
    return streamOf(descriptor(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)), "rb");
}

// Takes the length of a regular file that a 32-bit count holds. False, with errno set, for others.
bool takeLength(std::FILE* file, std::uint32_t& length) {
    struct stat status {};
    if (fstat(fileno(file), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
        return false;
    }
    if (status.st_size > std::numeric_limits<std::uint32_t>::max()) {
        errno = EFBIG;
        return false;
    }
    length = static_cast<std::uint32_t>(status.st_size);
    return true;
}

// Asks for large pages where the array is large: fewer faults, and so less time, to fill it. Not
// for more than these: a virtual machine whose free memory goes back to its host soon has none but
// large pages that the host has to find first, which takes far longer than the faults.
// Nothing but speed depends on the answer.
void preferLargePages(unsigned char* data, std::size_t size) {
    constexpr std::size_t page = std::size_t{2} << 20;
    constexpr std::size_t most = 32 * page;
    void* start = data;
    std::size_t space = size;
    if (std::align(page, page, start, space) != nullptr) {
        (void)madvise(start, std::min(space / page * page, most), MADV_HUGEPAGE);
    }
}

// Reads the whole file into an array of exactly its length. Null, with errno set, if it cannot;
// errno is 0 if the file is empty or ended early.
std::unique_ptr<unsigned char[]> readWhole(std::FILE* file, std::uint32_t& length) {
    if (!takeLength(file, length)) {
        return nullptr;
    }
    auto data = std::make_unique_for_overwrite<unsigned char[]>(length);
    preferLargePages(data.get(), length);
    errno = 0;
    return std::fread(data.get(), length, 1, file) == 1 ? std::move(data) : nullptr;
}

// Loads libzip, which then stays. Throws internal_error, with the cause in the log.
zip_library loadZip(const place& at) {
    void* const library = dlopen(LIBZIP_SONAME, RTLD_LAZY);
    zip_library zip{};
    bool complete = library != nullptr;
    const auto find = [&](auto& function, const char* name) {
        if (complete) {
            function = reinterpret_cast<std::decay_t<decltype(function)>>(dlsym(library, name));
            complete = function != nullptr;
        }
    };
    find(zip.open, "zip_open");
    find(zip.source_buffer, "zip_source_buffer");
    find(zip.source_free, "zip_source_free");
    find(zip.file_add, "zip_file_add");
    find(zip.file_set_external_attributes, "zip_file_set_external_attributes");
    find(zip.close, "zip_close");
    find(zip.discard, "zip_discard");
    find(zip.strerror, "zip_strerror");
    if (!complete) {
        LogWrite(at.file, at.line, at.function, log_failure, "fail: dlopen (%s)", dlerror());
        throw internal_error();
    }
    return zip;
}

// The text before the last '/', or the whole path if it has none.
std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// Why an archive cannot hold an entry of this name, or null.
const char* obstacleTo(const std::string& entryName) {
    if (entryName.empty()) {
        return "empty";
    }
    if (entryName.size() > std::numeric_limits<std::uint16_t>::max()) {
        return "longer than 65535 bytes";
    }
    std::vector<wchar_t> wide(entryName.size() + 1);
    try {
        auto bytes = entryName;
        TextDecodeUtf8(wide.data(), wide.size() * sizeof(wchar_t), bytes.data(), bytes.size());
    } catch (const internal_error&) {
        return "not UTF-8";
    }
    return nullptr;
}

struct zip_entry {
    const char* name;
    unsigned char* data;
    unsigned long size;
};

// Writes an archive. Logs as `caller`, whose work this is.
void writeArchive(const char* path, std::initializer_list<zip_entry> entries, const char* caller) {
    const zip_library zip = loadZip({__FILE__, __LINE__, caller});
    int error = 0;
    zip_archive archive(zip.open(path, ZIP_CREATE | ZIP_TRUNCATE, &error), zip.discard);
    if (error != 0) {
        LogWrite(__FILE__, __LINE__, caller, log_failure, "fail: zip_open (answer:%d)", error);
        throw internal_error();
    }
    const auto require = [&](int line, bool succeeded, const char* failure) {
        if (!succeeded) {
            LogWrite(__FILE__, line, caller, log_failure, failure, zip.strerror(archive.get()));
            throw internal_error();
        }
    };
    for (const auto& [name, data, size] : entries) {
        zip_data source(zip.source_buffer(archive.get(), data, size, 0), zip.source_free);
        require(__LINE__, source != nullptr, "fail: zip_source_buffer (%s)");
        const auto index = zip.file_add(archive.get(), name, source.get(), ZIP_FL_ENC_UTF_8);
        require(__LINE__, index >= 0, "fail: zip_file_add (%s)");
        (void)source.release(); // the archive's now
        const bool given = zip.file_set_external_attributes(
                               archive.get(),
                               static_cast<zip_uint64_t>(index),
                               0,
                               ZIP_OPSYS_UNIX,
                               zip_uint32_t{S_IFREG | 0644} << 16) == 0;
        require(__LINE__, given, "fail: zip_file_set_external_attributes (%s)");
    }
    require(__LINE__, zip.close(archive.get()) == 0, "fail: zip_close (%s)");
    (void)archive.release(); // gone with the closing
}

class api : public api_like {
public:
    void createZip(
        const char* zipPath,
        const char* name1,
        unsigned char* data1,
        unsigned long size1,
        const char* name2,
        unsigned char* data2,
        unsigned long size2) override;
    void writeFile(const char* path, unsigned char* data, unsigned long size) override;
    std::unique_ptr<unsigned char[]> readFile(const char* path, unsigned long* size) override;
};

void api::createZip(
    const char* zipPath,
    const char* name1,
    unsigned char* data1,
    unsigned long size1,
    const char* name2,
    unsigned char* data2,
    unsigned long size2) {
    LogWrite(ORLEK_HERE, log_progress, "exec");
    const auto directory = directoryOf(zipPath);
    if (fsutils_create_dir_r(0755, directory.c_str()) != 0) {
        LogWrite(ORLEK_HERE, log_tolerated, "fail: mkdir <%s>", directory.c_str());
    }

    for (const char* name : {name1, name2}) {
        if (const char* cause = obstacleTo(name)) {
            LogWrite(ORLEK_HERE, log_failure, "fail: entry <%.255s> (%s)", name, cause);
            throw internal_error();
        }
    }
    const target at(zipPath);
    new_archive archive(at);
    if (const char* cause = archive.obstacle()) {
        LogWrite(ORLEK_HERE, log_failure, "fail: target <%s> (%s)", zipPath, cause);
        throw internal_error();
    }
    writeArchive(archive.path(), {{name1, data1, size1}, {name2, data2, size2}}, __func__);
    if (!archive.settle()) {
        const char* cause = at.folder ? std::strerror(errno) : at.obstacle;
        LogWrite(ORLEK_HERE, log_failure, "fail: rename <%s> (%s)", zipPath, cause);
        throw internal_error();
    }
    LogWrite(ORLEK_HERE, log_progress, "done");
}

void api::writeFile(const char* path, unsigned char* data, unsigned long size) {
    target at(path);
    const auto file = streamOf(at.open(), "wb");
    if (!file) {
        const char* cause = at.obstacle != nullptr ? at.obstacle : std::strerror(errno);
        LogWrite(ORLEK_HERE, log_failure, "fail: fopen <%s> (%s)", path, cause);
        throw internal_error();
    }
    // Unbuffered, so that fwrite counts the bytes that reached the file: a full disk is not found
    // out at the closing, where nobody looks.
    (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);
    const std::size_t written = data != nullptr ? std::fwrite(data, 1, size, file.get()) : 0;
    if (written != size) {
        LogWrite(
            ORLEK_HERE,
            log_failure,
            "fail: fwrite <%s> (expected-size:%d, actual-size:%d)",
            path,
            static_cast<int>(size),
            static_cast<int>(written));
        throw internal_error();
    }
    LogWrite(ORLEK_HERE, log_progress, "done: <%s>", path);
}

std::unique_ptr<unsigned char[]> api::readFile(const char* path, unsigned long* size) {
    const auto file = openForReading(path);
    if (!file) {
        const char* cause = std::strerror(errno);
        LogWrite(ORLEK_HERE, log_failure, "fail: fopen <%s> (errno:%s)\n", path, cause);
        throw internal_error();
    }
    std::uint32_t length = 0;
    auto data = readWhole(file.get(), length);
    if (!data) {
        const char* cause = std::strerror(errno);
        LogWrite(ORLEK_HERE, log_failure, "fail: fread <%s> (%s)\n", path, cause);
        throw internal_error();
    }
    *size = length;
    return data;
}

} // namespace

std::shared_ptr<api_like> Api__Create() {
    return std::make_shared<api>();
}

} // namespace Orlek::Support::Velmora::Fs
