// Where a file is to go, whatever others have put there.
#pragma once

#include <orlek/descriptor.h>

#include <string>

#include <sys/stat.h>

namespace Orlek::Support::Velmora::Fs {

// The folder and the name that a path leads to, found once: the folder is held open, so what others
// make of the path afterwards leads nowhere else. A link at the end of the path is followed where
// it is one's own or the folder's owner's, as the kernel does in sticky folders.
class target {
public:
    explicit target(const char* given);

    // Whether others than the administrator can change what the folder holds.
    [[nodiscard]] bool isInSharedFolder() const;

    // Whether what is there is a regular file of whoever runs this.
    [[nodiscard]] bool isOwnFile() const;

    // Opens what is there to be written in place, emptied, or makes it. A pipe that nobody reads is
    // not waited for. None, with the obstacle set, if that cannot or must not be.
    descriptor open();

    std::string path;               // the same as one path, for libraries that take no folder
    descriptor folder;              // none if it cannot be opened
    std::string name;               // in the folder
    struct stat present {};         // of what is there; its mode is 0 if nothing is
    const char* obstacle = nullptr; // why nothing is to be written there, or null

private:
    descriptor enter(const std::string& next);
    [[nodiscard]] const char* obstacleTo(const struct stat& opened) const;

    struct stat around {};  // of the folder
    bool viaKernel = false; // what is there is the kernel's link to a file that somebody has open
};

} // namespace Orlek::Support::Velmora::Fs
