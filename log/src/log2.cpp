#include "log2.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t turn_over_size = off_t{8} << 20;

// A log that was opened. None is ever destroyed: records may come from destructors that run after
// main, and from a thread that is not done when another one opens or closes a log.
struct open_log {
    const std::string path;
    const int level;
    open_log* const before;
    std::atomic<bool> closed = false;
};

std::atomic<open_log*> current;

// For the length of a call: what errno says stays as it was, since a log call may stand between a
// failure and its report, and the thread is not cancelled half-way.
class undisturbed {
public:
    undisturbed() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelling); }
    ~undisturbed() {
        ::pthread_setcancelstate(cancelling, nullptr);
        errno = kept;
    }
    undisturbed(const undisturbed&) = delete;
    undisturbed& operator=(const undisturbed&) = delete;

private:
    int kept = errno;
    int cancelling = PTHREAD_CANCEL_ENABLE;
};

// Whether others may have put this into the folder for the log to go where they want it: a link
// that is neither one's own nor the folder's owner's; in a folder that others can write to a folder
// of theirs, a file with other names, and, where they can only add, whatever is theirs.
bool isPlanted(const struct stat& entry, const struct stat& folder) {
    const bool foreign = entry.st_uid != ::geteuid() && entry.st_uid != folder.st_uid;
    const bool shared = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool sticky = (folder.st_mode & S_ISVTX) != 0;
    const bool linked = S_ISREG(entry.st_mode) && entry.st_nlink > 1;
    return (foreign && S_ISLNK(entry.st_mode)) ||
           (shared && (linked || (foreign && (sticky || S_ISDIR(entry.st_mode)))));
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

// Where a link leads; empty if it was planted.
std::string targetOf(const std::string& path) {
    const int link = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    std::array<char, PATH_MAX> text{};
    struct stat entry {};
    struct stat folder {};
    const bool followed = link >= 0 && ::fstat(link, &entry) == 0 &&
                          ::stat(folderOf(path).c_str(), &folder) == 0 && !isPlanted(entry, folder);
    const auto length = followed ? ::readlinkat(link, "", text.data(), text.size()) : 0;
    ::close(link);
    if (length <= 0) {
        return {};
    }
    const std::string target(text.data(), static_cast<std::size_t>(length));
    return target.starts_with('/') ? target : folderOf(path) + target;
}

// The log file, open for one record: whoever opens it by name for each record always writes to the
// current one, whichever process turned it over, and holds no descriptor that could leak or be
// shared.
class log_file {
public:
    explicit log_file(const std::string& place) : path(place) {
        constexpr int max_links = 8;
        std::string next = path;
        for (int links = 0; !open(next) && errno == ELOOP && links < max_links; ++links) {
            next = targetOf(next);
        }
        usable = descriptor >= 0 && isWritable(folderOf(next));
    }
    log_file(const log_file&) = delete;
    log_file& operator=(const log_file&) = delete;
    ~log_file() {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }

    [[nodiscard]] bool isFull() const { return usable && status.st_size >= turn_over_size; }

    // Only the holder of the lock renames, and only the file it has locked: a second process that
    // found the same file full finds another one under the name by then. While another process is
    // at it, or where the name is a link, nothing is done, and the record goes to the full file.
    // False if the file cannot be renamed.
    [[nodiscard]] bool turnOver() const {
        struct stat named {};
        const bool turn = ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 &&
                          ::lstat(path.c_str(), &named) == 0 && named.st_dev == status.st_dev &&
                          named.st_ino == status.st_ino;
        return !turn || ::rename(path.c_str(), (path + ".1").c_str()) == 0;
    }

    void append(std::string_view record) const {
        // Writing past the process's file size limit would end the process with a signal.
        rlimit limit{};
        if (!usable || ::getrlimit(RLIMIT_FSIZE, &limit) != 0 ||
            static_cast<rlim_t>(status.st_size) + record.size() > limit.rlim_cur) {
            return;
        }
        const auto written = ::write(descriptor, record.data(), record.size());
        if (written > 0 && static_cast<std::size_t>(written) < record.size()) {
            takeBack(written);
        }
    }

private:
    bool open(const std::string& place) {
        constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
        descriptor = ::open(place.c_str(), flags | O_CLOEXEC, 0600);
        return descriptor >= 0;
    }

    // A pipe or a device under the log's name could block, so only a regular file will do. Only one
    // that stands out is worth a look at its folder.
    bool isWritable(const std::string& folder) {
        struct stat around {};
        return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
               ((status.st_uid == ::geteuid() && status.st_nlink == 1) ||
                (::stat(folder.c_str(), &around) == 0 && !isPlanted(status, around)));
    }

    // A full disk cut the record short: what there is of it goes, unless others wrote behind it.
    void takeBack(ssize_t written) const {
        const off_t end = ::lseek(descriptor, 0, SEEK_CUR);
        struct stat now {};
        if (::fstat(descriptor, &now) == 0 && now.st_size == end) {
            static_cast<void>(::ftruncate(descriptor, end - written) == 0);
        }
    }

    const std::string& path;
    int descriptor = -1;
    struct stat status {};
    bool usable = false;
};

void writeRecord(const std::string& path, std::string_view record) {
    {
        const log_file file{path};
        if (!file.isFull()) {
            file.append(record);
            return;
        }
        if (!file.turnOver()) {
            return; // full for good: it grows no further
        }
    }
    log_file{path}.append(record);
}

std::string variable(const char* name) {
    const char* value = ::secure_getenv(name);
    return value != nullptr ? value : "";
}

// Where the log of a name is kept; empty when the environment names no place.
std::filesystem::path logFolder(const std::string& name) {
    if (const auto given = variable("LOG2_DIR"); !given.empty()) {
        const auto folder = std::filesystem::absolute(given);
        return folder.has_filename() ? folder : folder.parent_path(); // no slash at its end
    }
    // A relative XDG_STATE_HOME is invalid and to be ignored, as the XDG base directories have it.
    if (const auto state = variable("XDG_STATE_HOME"); state.starts_with('/')) {
        return state + "/" + name;
    }
    if (const auto home = variable("HOME"); !home.empty()) {
        return std::filesystem::absolute(home + "/.local/state/" + name);
    }
    return {};
}

// Makes the folder if it is missing, and tells whether there is one that was not planted.
bool makeFolder(const std::filesystem::path& folder) {
    std::filesystem::path made;
    struct stat entry {};
    struct stat around {};
    for (const auto& part : folder) {
        made /= part;
        static_cast<void>(::mkdir(made.c_str(), 0700));
    }
    return ::lstat(folder.c_str(), &entry) == 0 &&
           ::stat(folder.parent_path().c_str(), &around) == 0 && !isPlanted(entry, around);
}

std::string fileName(const char* given) {
    std::string name = given != nullptr ? given : "";
    if (name.empty() || name == "." || name == "..") {
        return "unnamed";
    }
    for (auto& letter : name) {
        letter = letter == '/' ? '_' : letter;
    }
    return name;
}

std::string escapedByte(unsigned char byte) {
    constexpr std::string_view named = "\n\r\t\\";
    constexpr std::string_view names = "nrt\\";
    constexpr std::string_view digits = "0123456789abcdef";
    if (const auto at = named.find(static_cast<char>(byte)); at != named.npos) {
        return {'\\', names[at]};
    }
    return {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
}

// The text with its control characters escaped: those of ASCII, and U+0080 to U+009F in UTF-8
// (bytes C2 80 to C2 9F), which terminals obey as well.
std::string escaped(std::string_view text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const auto next = static_cast<unsigned char>(at + 1 < text.size() ? text[at + 1] : 0);
        if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            result += escapedByte(byte) + escapedByte(next);
            ++at;
        } else if (byte < 0x20 || byte == 0x7F || byte == '\\') {
            result += escapedByte(byte);
        } else {
            result += text[at];
        }
    }
    return result;
}

std::string orDash(const char* text) {
    return text != nullptr ? escaped(text) : "-";
}

// The message without the line feed that some callers end theirs with.
std::string message(const char* format, va_list values) {
    char* formatted = nullptr;
    const int length = ::vasprintf(&formatted, format, values);
    if (length < 0) {
        return escaped(format);
    }
    const std::unique_ptr<char, decltype(&std::free)> owner{formatted, &std::free};
    std::string_view text{formatted, static_cast<std::size_t>(length)};
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return escaped(text);
}

// Without the C library's calendar, which reads a file that the environment names.
std::string now() {
    using namespace std::chrono;
    const auto moment = floor<milliseconds>(system_clock::now());
    const auto day = floor<days>(moment);
    const year_month_day date{day};
    const hh_mm_ss time{moment - day};
    std::array<char, 40> text{};
    const int length = std::snprintf(
        text.data(),
        text.size(),
        "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
        int{date.year()},
        unsigned{date.month()},
        unsigned{date.day()},
        static_cast<int>(time.hours().count()),
        static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()),
        static_cast<int>(time.subseconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

} // namespace

void LogOpen2(const char* name, int level, int /*flag*/) try {
    const undisturbed scope;
    LogClose();
    const auto safe_name = fileName(name);
    if (const auto folder = logFolder(safe_name); !folder.empty() && makeFolder(folder)) {
        current = new open_log{folder / (safe_name + ".log"), level, current};
    }
} catch (...) { // no log, then
}

void LogWrite(
    const char* file,
    int line,
    const char* function,
    int level,
    const char* format,
    ...) try {
    const undisturbed scope;
    const open_log* log = current;
    if (log == nullptr || log->closed || level > log->level || format == nullptr) {
        return;
    }
    va_list values;
    va_start(values, format);
    const auto text = message(format, values);
    va_end(values);
    writeRecord(
        log->path,
        now() + " " + std::to_string(::getpid()) + " " + std::to_string(level) + " " +
            orDash(function) + " " + orDash(file) + ":" + std::to_string(line) + " " + text + "\n");
} catch (...) { // the record is lost, its caller is not
}

void LogClose(void) {
    if (open_log* log = current) {
        log->closed = true;
    }
}
