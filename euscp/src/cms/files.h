// The files that a signature is made of.
#pragma once

#include "bytes.h"

#include <string>
#include <sys/stat.h>
#include <utility>

#include <unistd.h>

namespace eu {

// A file descriptor, closed with its scope.
class descriptor {
public:
    explicit descriptor(int opened = -1) : number(opened) {}
    descriptor(descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~descriptor() { close(); }

    explicit operator bool() const { return number >= 0; }
    [[nodiscard]] int get() const { return number; }

    // Closes now, so that a late write error shows.
    bool close() { return number < 0 || ::close(std::exchange(number, -1)) == 0; }

private:
    int number;
};

// A regular file to be signed. Throws EU_ERROR_FILE_READ if it is none or cannot be opened.
class data_file {
public:
    explicit data_file(const char* path);

    // Its SHA-256, read once in pieces. Throws EU_ERROR_FILE_READ, or EU_ERROR_FILE_CHANGED if the
    // file changed meanwhile.
    [[nodiscard]] bytes digest() const;

    [[nodiscard]] bool is(const struct stat& other) const;

private:
    descriptor file;
    struct stat before {};
};

// The file that a signature is to become: the folder and the name that a path leads to, found once.
// The folder is held open, so what others make of the path afterwards leads nowhere else. A link at
// the end of the path is followed where it is one's own or the folder's owner's, as the kernel does
// in sticky folders.
// Throws EU_ERROR_FILE_LINK for other links, those that lead nowhere included; EU_ERROR_FILE_TYPE
// if something else than a regular file is there; EU_ERROR_FILE_SAME for the data file itself;
// EU_ERROR_FILE_WRITE if the folder cannot be opened.
class signature_file {
public:
    signature_file(std::string path, const data_file& data);

    // Writes the whole file: a temporary file beside it, synced and renamed over what is there by
    // then. The file ends up whole or is left as it was. It has the permissions of the one that
    // was there if that was one's own, else those of a new file. Throws EU_ERROR_FILE_WRITE.
    void replace(view contents) const;

private:
    bool enter(std::string& path);

    descriptor folder;
    std::string name;
    struct stat present {}; // of what was there; its mode is 0 if nothing was
};

} // namespace eu
