#include "fs/target.h"

#include <orlek/standard_streams.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace Orlek::Support::Velmora::Fs {

namespace {

constexpr int max_links = 40; // as many as the kernel follows
constexpr mode_t others_write = S_IWGRP | S_IWOTH;

bool isOfProcesses(const descriptor& folder) {
    struct statfs system {};
    return fstatfs(folder.get(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

// The name, among this process's open files, of what a standard stream led to at the start.
std::string startOf(const std::string& name, const struct stat& folder) {
    struct stat own {};
    const bool named = stat("/proc/self/fd", &own) == 0 && own.st_dev == folder.st_dev &&
                       own.st_ino == folder.st_ino && (name == "1" || name == "2");
    return named ? std::to_string(standard_streams[name == "1" ? 1 : 2]) : name;
}

std::string textOf(const descriptor& link) {
    std::array<char, PATH_MAX> text{};
    const auto length = readlinkat(link.get(), "", text.data(), text.size());
    return {text.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

} // namespace

// Opens the folder of a path that starts in the folder so far, and what is there, without following
// it. None if nothing is there, or, with the obstacle set, if that cannot be told.
descriptor target::enter(const std::string& next) {
    const auto end = next.rfind('/') + 1; // 0 if there is none
    const auto through = end > 0 ? next.substr(0, end) : ".";
    const int from = folder ? folder.get() : AT_FDCWD;
    name = end > 0 && end == next.size() ? "." : next.substr(end);
    folder = descriptor(openat(from, through.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fstat(folder.get(), &around) != 0) {
        obstacle = std::strerror(errno);
        return {};
    }
    descriptor entry(openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    present = {};
    // Nothing has a name that is too long; whoever is to use it will say so.
    const bool missing = !entry && (errno == ENOENT || errno == ENAMETOOLONG);
    if (!missing && (!entry || fstat(entry.get(), &present) != 0)) {
        obstacle = std::strerror(errno);
    }
    return entry;
}

target::target(const char* given) : path(given) {
    std::string next = path;
    for (int links = 0;; ++links) {
        const auto entry = enter(next);
        viaKernel = S_ISLNK(present.st_mode) && isOfProcesses(folder);
        if (viaKernel) {
            name = startOf(name, around);
        }
        if (obstacle != nullptr || !S_ISLNK(present.st_mode) || viaKernel) {
            return;
        }
        if (links == max_links) {
            obstacle = std::strerror(ELOOP);
            return;
        }
        if (present.st_uid != geteuid() && present.st_uid != around.st_uid) {
            obstacle = "a link of somebody else's";
            return;
        }
        next = textOf(entry);
        path = next.starts_with('/') ? next : path.substr(0, path.rfind('/') + 1) + next;
    }
}

bool target::isInSharedFolder() const {
    const bool ours = around.st_uid == geteuid() || around.st_uid == 0;
    return !ours || (around.st_mode & others_write) != 0;
}

bool target::isOwnFile() const {
    return S_ISREG(present.st_mode) && present.st_uid == geteuid();
}

descriptor target::open() {
    if (obstacle != nullptr) {
        return {};
    }
    const int flags = O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int links = viaKernel ? 0 : O_NOFOLLOW; // a link by now was put there meanwhile
    descriptor file(openat(folder.get(), name.c_str(), flags | links, 0666));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        obstacle = std::strerror(errno);
        return {};
    }
    obstacle = obstacleTo(status);
    const bool emptied = obstacle == nullptr &&
                         (!S_ISREG(status.st_mode) || ftruncate(file.get(), 0) == 0) &&
                         fcntl(file.get(), F_SETFL, 0) == 0; // a slow reader is waited for
    if (obstacle == nullptr && !emptied) {
        obstacle = std::strerror(errno);
    }
    return emptied ? std::move(file) : descriptor();
}

// Why an open file is not to be written in place, or null.
const char* target::obstacleTo(const struct stat& opened) const {
    const bool othersWrite = (around.st_mode & others_write) != 0;
    if ((opened.st_mode & (S_ISUID | S_ISGID)) != 0) {
        return "a file with set-id bits";
    }
    if (isInSharedFolder() && S_ISREG(opened.st_mode) && opened.st_nlink > 1) {
        return "a file with other names in a shared folder";
    }
    if (othersWrite && (around.st_mode & S_ISVTX) != 0 && opened.st_uid != geteuid()) {
        return "somebody else's file in a shared folder";
    }
    return nullptr;
}

} // namespace Orlek::Support::Velmora::Fs
