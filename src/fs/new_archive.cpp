#include "fs/new_archive.h"

#include <orlek/descriptor.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Orlek::Support::Velmora::Fs {

namespace {

bool mayBeOthers(const target& it) {
    const bool plain = it.isOwnFile() && (it.present.st_mode & 07000) == 0;
    return !it.folder || it.isInSharedFolder() || (S_ISREG(it.present.st_mode) && !plain);
}

} // namespace

new_archive::new_archive(const target& archive)
    : at(archive), aside(mayBeOthers(archive)), name(archive.path) {
    if (aside) {
        name.resize(name.rfind('/') + 1);
        name += ".requests." + std::to_string(arc4random()) + std::to_string(arc4random());
    }
}

new_archive::~new_archive() {
    if (aside) {
        unlink(name.c_str());
    }
}

const char* new_archive::obstacle() const {
    if (at.folder && at.obstacle != nullptr) {
        return at.obstacle;
    }
    const bool present = at.present.st_mode != 0;
    return aside && present && !S_ISREG(at.present.st_mode) ? "not a regular file" : nullptr;
}

bool new_archive::settle() {
    if (aside) {
        aside = (at.isOwnFile() && !givePermissions()) ||
                renameat(AT_FDCWD, name.c_str(), at.folder.get(), at.name.c_str()) != 0;
    }
    return !aside;
}

// By descriptor: in a folder that others can write to, the name may be another file's by now.
bool new_archive::givePermissions() const {
    const descriptor made(open(path(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!made || fstat(made.get(), &status) != 0) {
        return false;
    }
    errno = EPERM;
    return status.st_uid == geteuid() && status.st_nlink == 1 &&
           fchmod(made.get(), at.present.st_mode & 0777) == 0;
}

} // namespace Orlek::Support::Velmora::Fs
